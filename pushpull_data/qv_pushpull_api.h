// Client side of the pushpull store's protocol: the requests, and the queues of a component.
//
// The store owns one well-known queue, "/pushpull", into which every component writes its requests
// as JSON texts (see QvProcessApi). It answers into a queue that the component has created and
// registered (see QvPushpullReceiveQueue). This header brings both, and the queue functions of the
// utilities.
#ifndef PUSHPULL_DATA_QV_PUSHPULL_API_H
#define PUSHPULL_DATA_QV_PUSHPULL_API_H

#include <mqueue.h>

#include <memory>
#include <new>
#include <string>

#include "pushpull_data/qv_process_api.h"
#include "pushpull_data/qv_pushpull_receive_queue.h"
#include "pushpull_data/qv_pushpull_transmit_queue.h"
#include "pushpull_data/qv_pushpull_utilities.h"

/// The requests of one component. Used by one thread, takes no lock, throws nothing.
///
/// Each request returns 0 when it stands in the store's queue, and a value other than 0 after a
/// failure, which it has logged. It waits while the store is slow: up to about 10 s, and 5 s more
/// while there is no store.
class QvPushpullApi {
 public:
  mqd_t queue_descriptor = -1;  ///< the store's queue; -1 when not open
  std::string subq_name;        ///< follows "/pushpull" whenever a request has to open the queue

  /// A client that is terminated before it is freed; empty when memory is short.
  static std::shared_ptr<QvPushpullApi> create();

  /// Opens the store's queue, "/pushpull" followed by `suffix`; never creates it. A queue that is
  /// open already is not closed: terminate() first.
  /// @return 0, or -1.
  int init(const std::string& suffix);

  /// Closes the store's queue, unless the descriptor is 0. A second call finds none to close, which
  /// is an error.
  /// @return 0, or -1.
  int terminate();

  /// Sends a text with its NUL, priority 1. Opens the queue first if it is not open: five tries,
  /// 1 s before each. Then five tries to send, 1 s long each, and 1 s of pause after each that
  /// fails.
  /// @return 0; -1; or the result of the last init().
  int post_msg_to_pushpull_data(const std::string& msg);

  /// Opens a queue with the caller's flags and empties it; `mode` is not narrowed by the umask.
  /// @return the descriptor, or -1.
  mqd_t message_queue_create_and_error_handling(const char* name, int oflag, mode_t mode,
                                                struct mq_attr* attr);

  /// Create a queue of this component's own, or take over one of that name. The caller owns the
  /// result.
  /// @param queue_size  messages   @param message_size  bytes
  /// @return null after a failure, which is logged; errno says why.
  QvPushpullTransmitQueue* create_transmit_queue(const char* name, int queue_size,
                                                 int message_size);
  QvPushpullReceiveQueue* create_receive_queue(const char* name, int queue_size, int message_size);

  /// The text of a request. @param attr  may be null   @return empty when it cannot be written.
  std::string build_json_post_msg(eQV_CMP_IDs_ comp_id, const std::string& function,
                                  const std::string& buffer, struct mq_attr* attr,
                                  bool notifyOnChangeOnly, const std::string& sender_id,
                                  eQV_CMP_IDs_ dst_comp_id, bool pack_and_send);

  /// Makes the component known. @param name  its receive queue   @param attr  may be null
  int comp_register(eQV_CMP_IDs_ comp_id, const std::string& name, struct mq_attr* attr);

  /// Has the store forget the component and its subscriptions.
  int comp_unregister(eQV_CMP_IDs_ comp_id);

  /// Asks for (no more) notifications. @param paths  nodes such as "/rgw", separated by ";"
  int subscribe(eQV_CMP_IDs_ comp_id, const std::string& paths, bool notifyOnChangeOnly);
  int un_subscribe(eQV_CMP_IDs_ comp_id, const std::string& paths);

  /// Stores a JSON text.
  int publish(eQV_CMP_IDs_ comp_id, const std::string& data);

  /// Asks for one node; the answer comes into the receive queue.
  int get(eQV_CMP_IDs_ comp_id, const std::string& path, const std::string& sender_id,
          bool pack_and_send = false);

  /// Have the store save its data, and its complete tree for inspection.
  int flush(eQV_CMP_IDs_ comp_id);
  int save_complete_tree(eQV_CMP_IDs_ comp_id);

  /// Empties a node.
  int clear(eQV_CMP_IDs_ comp_id, const std::string& path);

  /// Refused with -1, and nothing is sent, unless check_delete_authority() allows it.
  int delete_node(eQV_CMP_IDs_ comp_id, const std::string& path);

  /// Say that what the text names begins, and ends.
  int init_request(eQV_CMP_IDs_ comp_id, const std::string& text);
  int exit_request(eQV_CMP_IDs_ comp_id, const std::string& text);

  /// Passes a text to another component. Failures are logged as those of a registration.
  int comp_sync(eQV_CMP_IDs_ comp_id, eQV_CMP_IDs_ dst_comp_id, const std::string& buffer);

  /// @return 0 when the component may delete nodes, -1 otherwise.
  int check_delete_authority(eQV_CMP_IDs_ id);
};

// Inline, so that a program can bring its own of the functions that share an object with init().
inline std::shared_ptr<QvPushpullApi> QvPushpullApi::create() try {
  struct TerminateAndFree {
    void operator()(QvPushpullApi* api) const {
      api->terminate();
      std::default_delete<QvPushpullApi>()(api);
    }
  };
  return std::unique_ptr<QvPushpullApi, TerminateAndFree>(
      std::make_unique<QvPushpullApi>().release());
} catch (const std::bad_alloc&) {
  return nullptr;
}

#endif
