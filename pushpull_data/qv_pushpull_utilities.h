// Free functions of the pushpull library.
#ifndef PUSHPULL_DATA_QV_PUSHPULL_UTILITIES_H
#define PUSHPULL_DATA_QV_PUSHPULL_UTILITIES_H

#include <mqueue.h>
#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <sstream>
#include <string>

#include "libjson.h"

// Message queues. A descriptor is -1 when there is none. The umask belongs to the whole process
// and is changed without a lock, so queues are opened while nobody else creates files: at start-up.

/// Asks for room for 851968000 bytes of queued messages (RLIMIT_MSGQUEUE, soft and hard), so that a
/// queue of 64 x 262144 fits. A refusal is ignored: small queues fit anyway, and a large one then
/// fails in mq_open() and is reported there.
void qv_set_mqueue_limits();

/// Sets the umask to 0. @return the mask that stood before.
mode_t set_umask_to_all();

void set_umask_value(mode_t mask);

/// Opens a queue for reading and writing; creates it only when there is none of this name. What
/// exists is taken as it is, its attributes included. The umask does not narrow `mode`.
/// @param oflag  ignored
/// @return the descriptor, or -1 with errno set.
mqd_t qv_mq_open(const char* name, int oflag, mode_t mode, struct mq_attr* attr);

/// Creates, or takes over, a queue of this component's own: mode 0660, larger limits asked for.
/// Sizes below 1 are refused. A failure is logged.
/// @param queue_size    messages   @param message_size  bytes
/// @return the descriptor, or -1 with errno set.
mqd_t qv_open_own_mqueue(const char* name, int queue_size, int message_size);

/// Empties a queue just opened of what an earlier run left in it: at most as many messages as it
/// held when this began, so that it never waits as long as nobody else reads the queue. A
/// descriptor of -1 is reported with errno. Without memory for one message it does nothing.
void qv_handle_error_and_flush(mqd_t q);

/// @param packed_buff_length, new_buff_length  bytes, not negative
/// @return whether a message of both parts and a terminating NUL fits the queue's message size;
/// false also when the queue cannot be asked.
bool qv_check_mqueue_limit(mqd_t q, long packed_buff_length, long new_buff_length);

/// Runs a shell command. @param cmd  not null   @return the result of system().
int systemx(const char* cmd);

// JSON trees. Handles are JSONNODE*; none of these functions changes or keeps one. Where a message
// names its place, "PushPull:%s@%d:" stands for the function and a line of its source.

/// Whether `a` is contained in `b`, by rules that are strict where one would not expect it:
///  - Nodes of different types are not, which is logged as an error; nor is anything without
///    children, so a scalar is never contained in an equal one.
///  - An array is contained when each of its elements is contained in an element of `b` of its
///    own, taken in order from the first that fits; order does not matter and `b` may have more.
///    Elements that are scalars are therefore never found.
///  - An object is contained when each of its members is, looked up by name: an object by these
///    rules, an array like the arrays above (an empty one always). A member that is a scalar
///    demands that the two whole objects are equal, in what the matching of arrays before it has
///    left over of `b`.
/// Copies of both trees are made at each level; meant for small documents. Without the memory for
/// them the answer is no.
bool qv_json_subset_equal(void* a, void* b);

/// Reads and parses a file. @return a tree that belongs to the caller (json_delete()); null when
/// the file cannot be opened, silently, or when its text is not valid, which is logged.
JSONNODE* ParseJsonFile(std::string path);

/// Whether a path such as /interfaces/wifi/size asks for the size of a node; "size" at the top and
/// the size of an array's element (/list/3/size) do not.
/// @param out  not null; receives the path before its first "/size", also where that only begins a
/// longer name: /sizes/x/size gives "". Written only when the result is true.
bool CheckSizeRequested(std::string path, std::string* out);

/// Lines of debug priority about a node; nothing for null, except that PrintJsonType() reports it
/// as an error.
void PrintJsonType(void* node);
void PrintJsonNode(void* node);
void PrintJsonSize(void* node);
void PrintJsonName(void* node);

// Texts, time and files.

/// The standard table of the reflected CRC-32 polynomial 0xEDB88320 (0x04C11DB7 before reflection).
extern const std::array<std::uint32_t, 256> QV_PUSHPULL_CRC32_TABLE_04C11DB7;

/// CRC-32 of any bytes without the usual inversion at the end (the variant JAMCRC):
/// 0x340BC6D9 for "123456789", 0xFFFFFFFF for nothing.
std::uint32_t CalcCrc32(std::string data);

/// Appends the decimal text of a number. What the stream throws is logged and does not get out.
/// @param out  not null
void ConvertIntToString(long value, std::stringstream* out);

/// Seconds of CLOCK_MONOTONIC, whole microseconds.
double qv_pushpull_get_timestamp();

/// Whether the file can be opened for reading.
bool DoesFileExist(std::string path);

#endif
