// Typed views of the store's JSON documents. This header brings all of them.
//
// A document has exactly one member at the top, the node's name; that name selects the view. A key
// is its getter's name without "get", with a small first letter: getSysId reads "sysId".
//
// A getter gives true when its value is valid, and then writes it through its argument; otherwise
// it gives false and writes nothing. A null argument just asks. Getters of sections hand out a
// pointer into the view, which owns the section.
//
// What is not valid counts as absent and harms nothing beside it: a member of another JSON type
// than its getter's, a state text outside its list, a whole number that does not fit int. A number
// with fraction or exponent is no whole number. Of members of the same name the last one counts.
#ifndef LOG_CONSUMER_QV_JSON_OBJ_FACTORY_H
#define LOG_CONSUMER_QV_JSON_OBJ_FACTORY_H

#include <memory>
#include <string>

#include "log_consumer/qv_interfaces.h"
#include "log_consumer/qv_json_base.h"
#include "log_consumer/qv_json_obj_type.h"
#include "log_consumer/qv_rgw.h"
#include "log_consumer/qv_server_assigned.h"
#include "log_consumer/qv_system.h"

class QvJsonObjFactory {
 public:
  /// Makes the view of a document:
  ///
  ///     "serverAssigned"  QvServerAssigned     kServerAssignedObj
  ///     "rgw"             QvRgw                kRgwObj
  ///     "interfaces"      QvInterfacesWrapper  kInterfacesWrapperObj
  ///     "system"          QvSystem             kSystemObj
  ///
  /// A node that is no object (/interfaces: no list) makes a view in which everything is absent.
  ///
  /// @param json  any bytes; a NUL ends the text
  /// @return the view, named like its node, or empty when the text is not JSON, is no object, has
  /// no member or several at the top (twice the same one counts as two), or when its member is no
  /// node that this service knows; also for want of memory: it throws nothing. A number that no
  /// double holds (1e309) is not JSON here.
  static std::shared_ptr<QvJsonObj> makeObj(const std::string& json);
};

#endif
