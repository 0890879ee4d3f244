// The record from which a request to the pushpull store is written, and the ids of components.
#ifndef PUSHPULL_DATA_QV_PROCESS_API_H
#define PUSHPULL_DATA_QV_PROCESS_API_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

/// Identity of a component on the pushpull store. Any 32-bit value may be met; named are those that
/// this system uses.
enum eQV_CMP_IDs_ : std::int32_t {
  QV_CMPID_RESERVED = 0,     ///< no component: as destination it is left out of a request
  QV_CMPID_PUSHPULL = 1100,  ///< the store itself
  QV_CMPID_DELETE_AUTHORITY_FIRST = 0x40000003,  ///< from here ...
  QV_CMPID_DELETE_AUTHORITY_LAST = 0x40000007,   ///< ... to here: the ones that may delete nodes
  QV_CMPID_LOG_CONSUMER = 0x40000010,            ///< this service
};

/// One request, as fields and as the text that travels.
///
/// The text is one JSON object:
///
///     {"function": "get",
///      "arg": {"comp_id": 1073741840, "dst_comp_id": 1100, "buffer": "/rgw",
///              "notifyOnChangeOnly": true, "pack_and_send": true, "sender_id": "x"},
///      "que": {"flags": 0, "maxmsg": 64, "msgsize": 262144, "curmsgs": 0}}
///
/// Left out are: a destination of 0, a flag that is false, an empty sender id, and the whole of
/// "que" unless a message count and a message size of at least 1 are given. "buffer" is always a
/// string; a payload that is JSON itself travels escaped within it. A text ends at its first NUL.
class QvProcessApi {
 public:
  std::shared_ptr<std::string> paction;          ///< "function": name of the operation
  std::shared_ptr<std::string> pbuff;            ///< "buffer": payload of the operation
  std::shared_ptr<std::string> pjsonstring;      ///< the text, once written
  std::shared_ptr<std::string> psenderId;        ///< "sender_id"
  eQV_CMP_IDs_ pcomp_id = QV_CMPID_RESERVED;     ///< "comp_id": who asks
  eQV_CMP_IDs_ dst_comp_id = QV_CMPID_RESERVED;  ///< "dst_comp_id"
  long que_flags = 0;    ///< "que": a copy of the asking component's mq_attr, or all 0
  long que_maxmsg = 0;   ///< messages
  long que_msgsize = 0;  ///< bytes
  long que_curmsgs = 0;  ///< messages
  bool notify_on_change_only = false;  ///< "notifyOnChangeOnly"
  bool pack_and_send = false;          ///< "pack_and_send"

  QvProcessApi();  ///< all texts empty

  void setfunction(const std::string& function);
  [[nodiscard]] const std::string& getfunction() const;
  void setBuff(const std::string& buffer);
  [[nodiscard]] const std::string& getBuff() const;
  void setsenderId(const std::string& sender_id);
  [[nodiscard]] const std::string& getsenderId() const;
  void setcomp_id(eQV_CMP_IDs_ id);
  [[nodiscard]] eQV_CMP_IDs_ getcomp_id() const;
  void setdstcomp_id(eQV_CMP_IDs_ id);
  [[nodiscard]] eQV_CMP_IDs_ getdstcomp_id() const;
  void setque_flags(long flags);
  [[nodiscard]] long getque_flags() const;
  void setque_maxmsg(long messages);
  [[nodiscard]] long getque_maxmsg() const;
  void setque_msgsize(long bytes);
  [[nodiscard]] long getque_msgsize() const;
  void setque_curmsgs(long messages);
  [[nodiscard]] long getque_curmsgs() const;
  void set_notify_on_change_only(bool only);
  [[nodiscard]] bool get_notify_on_change_only() const;
  void set_pack_and_send(bool pack);
  [[nodiscard]] bool get_pack_and_send() const;
  void setJsonString(const std::string& text);
  [[nodiscard]] const std::string& getJsonString() const;
  [[nodiscard]] std::size_t getJsonStringSize() const;  ///< bytes, without a NUL

  /// Writes the fields as text into `pjsonstring`.
  /// @return false when memory runs out or the JSON library cannot write them; the text is empty
  /// then.
  bool toJSON();

  /// Reads the fields from the text in `pjsonstring`. A member that is left out, or is of another
  /// type than toJSON() writes, gives its field the value of a new record.
  /// @return false, and no field has changed, when the text is not a JSON object with a string
  /// "function".   @throws std::bad_alloc
  bool parseJSON();
};

#endif
