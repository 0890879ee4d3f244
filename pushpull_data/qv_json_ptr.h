// Owners of what the JSON interface hands out.
#ifndef PUSHPULL_DATA_QV_JSON_PTR_H
#define PUSHPULL_DATA_QV_JSON_PTR_H

#include <memory>

#include "libjson.h"

struct QvJsonDelete {
  void operator()(JSONNODE* node) const { json_delete(node); }
};

struct QvJsonFree {
  void operator()(char* text) const { json_free(text); }
};

/// A tree that no other node owns.
using QvJsonNodePtr = std::unique_ptr<JSONNODE, QvJsonDelete>;

/// A text that the JSON interface returned.
using QvJsonTextPtr = std::unique_ptr<char, QvJsonFree>;

#endif
