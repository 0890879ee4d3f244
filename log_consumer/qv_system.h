// Views of the node /system: of all it holds, the device's clock.
#ifndef LOG_CONSUMER_QV_SYSTEM_H
#define LOG_CONSUMER_QV_SYSTEM_H

#include <string>

#include "log_consumer/qv_json_base.h"

class QvJsonValue;

/// Section "clock" of /system. Offsets are in the store's unit.
class QvSystemClock : public QvJsonObj {
 public:
  explicit QvSystemClock(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  bool getOffset(int* offset) const;     ///< time zone
  bool getDstOffset(int* offset) const;  ///< daylight saving
  bool getEnableDst(bool* enable) const;

 private:
  QvJB_base<int> offset_;
  QvJB_base<int> dstOffset_;
  QvJB_base<bool> enableDst_;
};

/// The node /system.
class QvSystem : public QvJsonObj {
 public:
  explicit QvSystem(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  bool getClock(QvSystemClock** section) const;

 private:
  mutable QvJB_base<QvSystemClock> clock_;  // const getters hand out changeable sections
};

#endif
