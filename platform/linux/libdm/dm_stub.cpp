// Placeholder until the device-mapper stand-in lands: every call fails.
#include <libdm/dm.h>

namespace android {
namespace dm {

DmTargetVerity::DmTargetVerity(uint64_t start, uint64_t length, uint32_t, const std::string&,
                               const std::string&, uint32_t, uint32_t, uint32_t, uint32_t,
                               const std::string&, const std::string&, const std::string&)
    : DmTarget(start, length) {}
void DmTargetVerity::IgnoreZeroBlocks() {}
void DmTargetVerity::SetVerityMode(const std::string&) {}
std::string DmTargetVerity::GetParameterString() const { return ""; }
bool DmTable::AddTarget(std::unique_ptr<DmTarget>&& target) {
  targets_.push_back(std::move(target));
  return true;
}
bool DmTable::valid() const { return false; }
uint64_t DmTable::num_sectors() const { return 0; }
std::string DmTable::Serialize() const { return ""; }

DeviceMapper& DeviceMapper::Instance() {
  static DeviceMapper instance;
  return instance;
}
DeviceMapper::DeviceMapper() {}
DmDeviceState DeviceMapper::GetState(const std::string&) const { return DmDeviceState::INVALID; }
bool DeviceMapper::CreateDevice(const std::string&, const DmTable&, std::string*,
                                const std::chrono::milliseconds&) {
  return false;
}
bool DeviceMapper::LoadTableAndActivate(const std::string&, const DmTable&) { return false; }
bool DeviceMapper::WaitForDevice(const std::string&, const std::chrono::milliseconds&, std::string*) {
  return false;
}
bool DeviceMapper::DeleteDevice(const std::string&, const std::chrono::milliseconds&) { return false; }
bool DeviceMapper::DeleteDevice(const std::string&) { return false; }
std::optional<std::string> DeviceMapper::GetParentBlockDeviceByPath(const std::string&) {
  return std::nullopt;
}

}  // namespace dm
}  // namespace android
