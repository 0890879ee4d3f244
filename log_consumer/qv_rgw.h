// Views of the node /rgw: the device's registration with the cloud service.
#ifndef LOG_CONSUMER_QV_RGW_H
#define LOG_CONSUMER_QV_RGW_H

#include <cstdint>
#include <string>

#include "log_consumer/qv_json_base.h"

class QvJsonValue;

/// Section "configSec" of /rgw. This service reads it but keeps the servers it was started with.
class QvRgwConfigSec : public QvJsonObj {
 public:
  explicit QvRgwConfigSec(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  /// Copies every valid value into the target and leaves the target's other values alone.
  void copyValid(QvRgwConfigSec& target) const;

  bool getRelayServerUrl(std::string* url) const;
  bool getRelayServerPort(int* port) const;

 private:
  QvJB_base<std::string> relayServerUrl_;
  QvJB_base<int> relayServerPort_;
};

/// The node /rgw.
class QvRgw : public QvJsonObj {
 public:
  /// The device's registration. From kAapStateRegistered to kAapStateBound the servers know it.
  enum aapStateEnum : std::int32_t {
    kAapStateUnregistered = 0,
    kAapStateRegistering = 1,
    kAapStateRegistered = 2,
    kAapStateBinding = 3,
    kAapStateBound = 4,
    kAapStateError = 5,
  };

  explicit QvRgw(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  /// Copies every valid value, those of the section included, into the target and leaves the
  /// target's other values alone.
  void copyValid(QvRgw& target) const;

  bool getAapState(aapStateEnum* state) const;
  bool getConfigSec(QvRgwConfigSec** section) const;

  /// The text of a state: "unregistered", "registering", "registered", "binding", "bound" or
  /// "error"; the last one also for any other number. At most 15 characters, so that storing it
  /// over another never allocates. The text is never freed.
  const char* getAapStateStr(aapStateEnum state) const;
  const char* getAapStateStr(int state) const;

  /// The state of a text that getAapStateStr() gives; kAapStateError for any other.
  aapStateEnum hashAapState(const std::string& text) const;

 private:
  QvJB_base<aapStateEnum> aapState_;
  mutable QvJB_base<QvRgwConfigSec> configSec_;  // const getters hand out changeable sections
};

#endif
