#include "log_consumer/qv_system.h"

#include <utility>

#include "log_consumer/qv_json_value.h"

QvSystemClock::QvSystemClock(std::string name) : QvJsonObj(kSystemClockObj, std::move(name)) {}

void QvSystemClock::read(const QvJsonValue& node) {
  node.read("offset", offset_);
  node.read("dstOffset", dstOffset_);
  node.read("enableDst", enableDst_);
}

bool QvSystemClock::getOffset(int* offset) const {
  return offset_.get(offset);
}

bool QvSystemClock::getDstOffset(int* offset) const {
  return dstOffset_.get(offset);
}

bool QvSystemClock::getEnableDst(bool* enable) const {
  return enableDst_.get(enable);
}

QvSystem::QvSystem(std::string name)
    : QvJsonObj(kSystemObj, std::move(name)), clock_(QvSystemClock("clock")) {}

void QvSystem::read(const QvJsonValue& node) {
  node.readSection("clock", clock_);
}

bool QvSystem::getClock(QvSystemClock** section) const {
  return clock_.get_section(section);
}
