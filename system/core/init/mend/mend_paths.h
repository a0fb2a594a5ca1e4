#pragma once

// Where the daemon finds and leaves things on a device, and the system
// properties it reads. The daemon, the status tool, the package tool and the
// tests take these from here.

namespace android {
namespace mend {

// Packages dropped by the application; every entry is tried as a zip.
inline constexpr char kPackageDir[] = "/data/rvx/imgs/";
// Per-package state, one JSON line per package name.
inline constexpr char kSharedPrefsFile[] = "/data/rvx/files/shared_prefs.cfg";
// The application's requests and the daemon's answers.
inline constexpr char kAppMsgFile[] = "/data/rvx/msgs/app.msg";
// The daemon's reports.
inline constexpr char kNativeMsgFile[] = "/data/rvx/msgs/native.msg";
// A package is mounted at kMountRoot + its name.
inline constexpr char kMountRoot[] = "/mnt/rvx/";
// The AVB public key blob that every package image must be signed with.
inline constexpr char kTrustedKeyFile[] = "/system/etc/security/rpk_public_key";

// Members of a package zip.
inline constexpr char kConfigEntryName[] = "config.txt";
inline constexpr char kImageEntryName[] = "update_payload.img";

// Name of the scratch verity device of the trial pass; a package may not
// carry it as its own name.
inline constexpr char kTrialDeviceName[] = "tmp";

// Both must be "1" for the daemon to do anything.
inline constexpr char kPropSupport[] = "ro.product.mend.support";
inline constexpr char kPropPersistSupport[] = "persist.product.mend.support";
// The running build, matched against a package's ro_build_display_id.
inline constexpr char kPropBuildDisplayId[] = "ro.build.display.id";
// "1" once boot has completed; the asynchronous run waits for it.
inline constexpr char kPropBootCompleted[] = "sys.boot_completed";
// True once the device manager has made the nodes of all cold-boot devices.
inline constexpr char kPropColdBootDone[] = "ro.cold_boot_done";

}  // namespace mend
}  // namespace android
