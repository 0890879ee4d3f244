// Views of the node /interfaces: the device's network interfaces.
#ifndef LOG_CONSUMER_QV_INTERFACES_H
#define LOG_CONSUMER_QV_INTERFACES_H

#include <cstdint>
#include <string>
#include <vector>

#include "log_consumer/qv_json_base.h"

class QvJsonValue;

/// Section "wifiStatus" of an interface.
class QvInterfaceWiFiStatus : public QvJsonObj {
 public:
  /// Texts in the store: "disassociated", "associated", "error".
  enum statusEnum : std::int32_t {
    kStatusDisassociated = 0,
    kStatusAssociated = 1,
    kStatusError = 2,
  };

  explicit QvInterfaceWiFiStatus(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  bool getStatus(statusEnum* status) const;

 private:
  QvJB_base<statusEnum> status_;
};

/// One interface.
class QvInterfaces : public QvJsonObj {
 public:
  explicit QvInterfaces(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  bool getId(int* id) const;
  bool getWifiStatus(QvInterfaceWiFiStatus** section) const;

 private:
  QvJB_base<int> id_;
  mutable QvJB_base<QvInterfaceWiFiStatus>
      wifiStatus_;  // const getters hand out changeable sections
};

/// The node /interfaces: the list of all interfaces.
class QvInterfacesWrapper : public QvJsonObj {
 public:
  explicit QvInterfacesWrapper(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  /// Copies the first interface of this id, with all that it has and lacks, into `out`.
  /// @return 0 when there is one; otherwise -1, and `out` is left alone.
  int searchQvInterfacesById(int id, QvInterfaces& out) const;

 private:
  std::vector<QvInterfaces> interfaces_;
};

#endif
