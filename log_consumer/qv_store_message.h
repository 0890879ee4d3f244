// What the store's messages change in the shared record.
//
// A message gives values; what it lacks stays as it was. Only a report that Wi-Fi is not associated
// takes something back. Each change is one short hold of the record's lock. Server addresses and
// ports that the store publishes are ignored on purpose: the service keeps the ones it was started
// with.
#ifndef LOG_CONSUMER_QV_STORE_MESSAGE_H
#define LOG_CONSUMER_QV_STORE_MESSAGE_H

#include <string>

class QvJsonObj;

/// Handles one message of the store. Text that makes no object is dropped without a word.
/// @param json  any bytes   @throws std::system_error when the record cannot be locked.
void handleStoreMessage(const std::string& json);

/// Handles the object of a message, by its type:
///
///     /interfaces      wifiAssociated; lastActivityTime is armed or disarmed; initialLogSending
///     /rgw             aapStateStr
///     /system          offset, dstOffset, enableDst
///     /serverAssigned  sysId and setDelayMinutes, nuvToken
///
/// An object of any other type is logged and changes nothing.
void handleStoreObject(const QvJsonObj& object);

#endif
