#include "log_consumer/qv_interfaces.h"

#include <algorithm>
#include <array>
#include <utility>

#include "log_consumer/qv_json_value.h"

namespace {

constexpr std::array<const char*, 3> kStatuses = {"disassociated", "associated", "error"};

}  // namespace

QvInterfaceWiFiStatus::QvInterfaceWiFiStatus(std::string name)
    : QvJsonObj(kInterfaceWiFiStatusObj, std::move(name)) {}

void QvInterfaceWiFiStatus::read(const QvJsonValue& node) {
  node.read("status", kStatuses, status_);
}

bool QvInterfaceWiFiStatus::getStatus(statusEnum* status) const {
  return status_.get(status);
}

QvInterfaces::QvInterfaces(std::string name)
    : QvJsonObj(kInterfacesObj, std::move(name)),
      wifiStatus_(QvInterfaceWiFiStatus("wifiStatus")) {}

void QvInterfaces::read(const QvJsonValue& node) {
  node.read("id", id_);
  node.readSection("wifiStatus", wifiStatus_);
}

bool QvInterfaces::getId(int* id) const {
  return id_.get(id);
}

bool QvInterfaces::getWifiStatus(QvInterfaceWiFiStatus** section) const {
  return wifiStatus_.get_section(section);
}

QvInterfacesWrapper::QvInterfacesWrapper(std::string name)
    : QvJsonObj(kInterfacesWrapperObj, std::move(name)) {}

void QvInterfacesWrapper::read(const QvJsonValue& node) {
  for (const QvJsonValue& element : node.objects()) {
    interfaces_.emplace_back("interfaces").read(element);
  }
}

int QvInterfacesWrapper::searchQvInterfacesById(int id, QvInterfaces& out) const {
  const auto found =
      std::find_if(interfaces_.begin(), interfaces_.end(), [id](const QvInterfaces& candidate) {
        int candidate_id = 0;
        return candidate.getId(&candidate_id) && candidate_id == id;
      });
  if (found == interfaces_.end()) return -1;
  out = *found;
  return 0;
}
