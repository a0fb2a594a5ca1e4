# Debian's packaged Android platform libraries, jsoncpp and fmt, and the
# project-wide warning flags.

set(ANDROID_LIB_DIR /usr/lib/x86_64-linux-gnu/android)
set(ANDROID_INCLUDE_DIR /usr/include/android)
# The libcrypto for hashes and signatures: OpenSSL, or the BoringSSL that a
# device's platform has (Debian's build of it), to prove the code uses only
# what both offer.
set(MEND_CRYPTO openssl CACHE STRING "libcrypto to build against: openssl or boringssl")
# Debian's BoringSSL headers also live under /usr/include/android/openssl;
# searching that directory after the system one keeps <openssl/...> on
# OpenSSL's headers, unless BoringSSL is the libcrypto of the build.
set(ANDROID_INCLUDE_FLAG "-idirafter${ANDROID_INCLUDE_DIR}")
if(MEND_CRYPTO STREQUAL "boringssl")
  set(ANDROID_INCLUDE_FLAG "-isystem${ANDROID_INCLUDE_DIR}")
endif()

# Installed programs keep finding Debian's Android libraries there.
set(CMAKE_INSTALL_RPATH_USE_LINK_PATH ON)

foreach(lib base log ziparchive)
  find_library(ANDROID_${lib}_LIBRARY NAMES ${lib} PATHS ${ANDROID_LIB_DIR} NO_DEFAULT_PATH REQUIRED)
endforeach()
find_path(JSONCPP_INCLUDE_DIR json/json.h PATH_SUFFIXES jsoncpp REQUIRED)
find_library(JSONCPP_LIBRARY jsoncpp REQUIRED)
find_package(fmt REQUIRED)
find_package(Threads REQUIRED)

# The RSA and digest calls used are in both libraries; OpenSSL 3 marks some
# deprecated, which the compatibility level keeps quiet.
add_library(mend_crypto INTERFACE)
target_compile_definitions(mend_crypto INTERFACE OPENSSL_API_COMPAT=0x10100000L)
if(MEND_CRYPTO STREQUAL "boringssl")
  find_library(BORINGSSL_CRYPTO_LIBRARY crypto PATHS ${ANDROID_LIB_DIR} NO_DEFAULT_PATH REQUIRED)
  target_compile_options(mend_crypto INTERFACE ${ANDROID_INCLUDE_FLAG})
  target_link_libraries(mend_crypto INTERFACE ${BORINGSSL_CRYPTO_LIBRARY})
  target_link_options(mend_crypto INTERFACE "-Wl,-rpath,${ANDROID_LIB_DIR}")
elseif(MEND_CRYPTO STREQUAL "openssl")
  find_package(OpenSSL REQUIRED)
  target_link_libraries(mend_crypto INTERFACE OpenSSL::Crypto)
else()
  message(FATAL_ERROR "MEND_CRYPTO must be openssl or boringssl, not ${MEND_CRYPTO}")
endif()

# One interface target per platform library, as Android.bp names them.
add_library(android_libbase INTERFACE)
target_compile_options(android_libbase INTERFACE ${ANDROID_INCLUDE_FLAG})
target_link_libraries(android_libbase INTERFACE ${ANDROID_base_LIBRARY} fmt::fmt)
target_link_options(android_libbase INTERFACE "-Wl,-rpath,${ANDROID_LIB_DIR}")

add_library(android_liblog INTERFACE)
target_compile_options(android_liblog INTERFACE ${ANDROID_INCLUDE_FLAG})
target_link_libraries(android_liblog INTERFACE ${ANDROID_log_LIBRARY})
target_link_options(android_liblog INTERFACE "-Wl,-rpath,${ANDROID_LIB_DIR}")

add_library(android_libziparchive INTERFACE)
target_compile_options(android_libziparchive INTERFACE ${ANDROID_INCLUDE_FLAG})
target_link_libraries(android_libziparchive INTERFACE ${ANDROID_ziparchive_LIBRARY})
target_link_options(android_libziparchive INTERFACE "-Wl,-rpath,${ANDROID_LIB_DIR}")

add_library(jsoncpp_lib INTERFACE)
target_include_directories(jsoncpp_lib SYSTEM INTERFACE ${JSONCPP_INCLUDE_DIR})
target_link_libraries(jsoncpp_lib INTERFACE ${JSONCPP_LIBRARY})

# Warnings for our own targets.
add_library(mend_warnings INTERFACE)
target_compile_options(mend_warnings INTERFACE -Wall -Wextra -Wformat -Wformat-security -Wno-unused-parameter)
if(MEND_WERROR)
  target_compile_options(mend_warnings INTERFACE -Werror)
endif()

# Every executable that runs daemon code gets the property and reboot
# stand-ins compiled in, so that no definition in a shared library can win.
function(mend_link_platform_standins target)
  target_link_libraries(${target} PRIVATE cutils_standin base_properties_standin)
endfunction()
