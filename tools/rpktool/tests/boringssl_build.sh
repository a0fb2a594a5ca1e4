#!/bin/sh
# Builds rpktool against BoringSSL (the platform's libcrypto) in its own tree,
# then checks that it accepts a reference package and that its package of a
# tree is byte for byte the one the main (OpenSSL) build makes.
# Usage: boringssl_build.sh SOURCE_DIR BUILD_DIR MAIN_RPKTOOL
set -eu
source=$1 build=$2 main=$3
cmake -S "$source" -B "$build" -G Ninja -DMEND_CRYPTO=boringssl -DMEND_BUILD_TESTS=OFF \
  -DMEND_WERROR=ON >/dev/null
cmake --build "$build" --target rpktool
tool=$build/tools/rpktool/rpktool
ldd "$tool" | grep -q android/libcrypto || { echo "not linked with BoringSSL" >&2; exit 1; }
fixtures=$source/tests/fixtures/avbtool
"$tool" verify --key "$fixtures/keys/rsa2048.avbpubkey" "$fixtures/pkgs/valid_2048.zip" >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/root/system/app"
echo payload > "$work/root/system/app/file"
printf 'update_package_name=x\nupdate_version_code=1\nmodule_path=/system/app\nro_build_display_id=B\n' \
  > "$work/config.txt"
package() {  # TOOL OUTPUT
  SOURCE_DATE_EPOCH=1 "$1" make --quiet --config "$work/config.txt" --root "$work/root" \
    --key "$fixtures/keys/rsa2048.pem" --salt 01 --owner 0 --group 0 --output "$2"
}
package "$tool" "$work/boringssl.zip"
package "$main" "$work/openssl.zip"
cmp "$work/boringssl.zip" "$work/openssl.zip"
