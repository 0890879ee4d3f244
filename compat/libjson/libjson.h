/* JSON trees behind libjson 7.6's plain-function interface.
 *
 * The subset that this system calls, under the genuine names, types and signatures, so that a
 * genuine installation can take this one's place. See README.md for subset and deviations.
 *
 * Ownership: every node that json_new*(), json_parse(), json_copy() or json_pop_back_at() returns
 * belongs to the caller, who ends it with json_delete() or hands it to a parent with
 * json_push_back(). A parent owns its children. Texts belong to the caller: json_free().
 * Copying, comparing, writing and ending a tree take stack in proportion to its depth, which is
 * small for every parsed tree.
 *
 * Errors: a null handle, a null text or an index out of range is harmless and gives the result
 * stated with each function. When memory runs out the result is null and nothing has changed. No
 * exception leaves any function.
 *
 * Threads: there is no shared state. One tree is used by one thread at a time. */
#ifndef COMPAT_LIBJSON_LIBJSON_H
#define COMPAT_LIBJSON_LIBJSON_H

#ifdef __cplusplus
extern "C" {
#endif

typedef void JSONNODE; /* one node of a tree; only its address is ever seen */
typedef JSONNODE** JSONNODE_ITERATOR;
typedef long json_int_t;
typedef unsigned int json_index_t;
typedef int json_bool_t;

/* The types of nodes, as json_type() gives them and json_new() takes them. Plain characters, like
 * the results they are compared with. */
#define JSON_NULL '\0'
#define JSON_STRING '\1'
#define JSON_NUMBER '\2'
#define JSON_BOOL '\3'
#define JSON_ARRAY '\4'
#define JSON_NODE '\5' /* an object */

/* New nodes. */

/* A node without a name: null, "", 0, false, [] or {} by `type`; null for any other type. */
JSONNODE* json_new(char type);

/* A string. `name` and `value` are copied; null counts as "". */
JSONNODE* json_new_a(const char* name, const char* value);

/* A number. */
JSONNODE* json_new_i(const char* name, json_int_t value);

/* A boolean; every value but 0 is true. */
JSONNODE* json_new_b(const char* name, json_bool_t value);

/* A copy of the node, its name and everything below it; null for null. */
JSONNODE* json_copy(const JSONNODE* node);

/* Ends a node and everything below it. Never for a node that a parent owns. */
void json_delete(JSONNODE* node);

/* Text in and out. */

/* Parses a NUL-terminated text: strict JSON in valid UTF-8, an object or an array at the top,
 * nested at most 128 deep. Duplicate names are all kept, in their order.
 * Returns null for any other text. Takes time in proportion to the text's length. */
JSONNODE* json_parse(const char* text);

/* 1 when json_parse() would give a tree, else 0. */
json_bool_t json_is_valid(const char* text);

/* The tree as text: indented with tabs, one member a line, no newline at the end; empty containers
 * are "{}" and "[]". The name of `node` itself is not written. "" for null and for a node that is
 * neither object nor array. */
char* json_write_formatted(const JSONNODE* node);

/* Frees a text that this interface returned. */
void json_free(void* text);

/* Looking at one node. */

/* JSON_NULL ... JSON_NODE; JSON_NULL for null. */
char json_type(const JSONNODE* node);

/* The number of children; 0 for null and for a node that is neither object nor array. */
json_index_t json_size(const JSONNODE* node);

/* The name; "" for null, for roots and for elements of an array. */
char* json_name(const JSONNODE* node);

/* A null `name` counts as "". */
void json_set_name(JSONNODE* node, const char* name);

/* A number cut to its whole part, 1 or 0 for a boolean, the whole number at the start of a string,
 * 0 for everything else. Beyond the range of long it is the nearest long. */
json_int_t json_as_int(const JSONNODE* node);

/* 1 when both have the same type, name and value, and their children are equal pairwise in their
 * order. Numbers are compared by value: 1.0 equals 1. 0 when either is null. */
json_bool_t json_equal(JSONNODE* node, JSONNODE* other);

/* Children. */

/* Appends `child`, which belongs to `parent` from here on; an element of an array loses its name.
 * A parent that is no container, is null or finds no memory ends the child: it never comes back
 * to the caller. Where it found no memory, the tree is not written any more. A node pushed into
 * itself is left alone. */
void json_push_back(JSONNODE* parent, JSONNODE* child);

/* The children as an array, in their order: json_begin() to before json_end(). The two are equal
 * when there are none. An iterator holds until the next json_push_back() or json_pop_back_at() on
 * the same node; the child it points at, until that child is deleted. */
JSONNODE_ITERATOR json_begin(JSONNODE* node);
JSONNODE_ITERATOR json_end(JSONNODE* node);

/* The first child of exactly this name; json_end(node) when there is none. */
JSONNODE_ITERATOR json_find(JSONNODE* node, const char* name);

/* The child at `index`, still owned by `node`; null when out of range. */
JSONNODE* json_at(JSONNODE* node, json_index_t index);

/* Takes the child at `index` out and hands it over to the caller; null when out of range. */
JSONNODE* json_pop_back_at(JSONNODE* node, json_index_t index);

#ifdef __cplusplus
}
#endif

#endif
