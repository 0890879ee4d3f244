#include "log_consumer/qv_json_obj_factory.h"

#include "log_consumer/qv_json_document.h"
#include "log_consumer/qv_json_value.h"

namespace {

template <typename View>
std::shared_ptr<QvJsonObj> filled(const std::string& name, const QvJsonValue& node) {
  auto view = std::make_shared<View>(name);
  view->read(node);
  return view;
}

std::shared_ptr<QvJsonObj> make_view(const std::string& name, const QvJsonValue& node) {
  if (name == "serverAssigned") return filled<QvServerAssigned>(name, node);
  if (name == "rgw") return filled<QvRgw>(name, node);
  if (name == "interfaces") return filled<QvInterfacesWrapper>(name, node);
  if (name == "system") return filled<QvSystem>(name, node);
  return nullptr;
}

}  // namespace

std::shared_ptr<QvJsonObj> QvJsonObjFactory::makeObj(const std::string& json) {
  try {
    QvJsonDocument document;
    if (!document.parse(json)) return nullptr;
    const QvJsonValue node(document, QvJsonDocument::kMember);
    return make_view(std::string(document.key(document.at(QvJsonDocument::kMember))), node);
  } catch (...) {  // want of memory
    return nullptr;
  }
}
