// A document of the store as the views read it: all that a view could ask for, in two pieces of
// memory, put together while the text is parsed.
//
// What no view asks for is checked like the rest, but not kept: texts, numbers and the like that
// are elements of a list, and the value of a number that does not fit int.
#ifndef LOG_CONSUMER_QV_JSON_DOCUMENT_H
#define LOG_CONSUMER_QV_JSON_DOCUMENT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class QvJsonDocument {
 public:
  enum class Kind : std::uint8_t {
    kObject,
    kList,
    kText,
    kNumber,  ///< a whole number that fits int
    kFlag,
    kOther,  ///< null, or a number that is none of the above
  };

  /// One value. A value's descendants follow it at once, so that its own end is the place of what
  /// comes behind it.
  struct Node {
    Kind kind = Kind::kOther;
    int number = 0;              ///< of a number or a flag
    std::uint32_t key = 0;       ///< where its key begins; keys and texts are in one piece
    std::uint32_t key_size = 0;  ///< 0 also for an element of a list
    std::uint32_t text = 0;      ///< where a text begins
    std::uint32_t text_size = 0;
    std::uint32_t end = 0;  ///< behind its last descendant
  };

  /// Parses a text; a NUL ends it.
  /// @return whether it is JSON: an object with exactly one member. Otherwise the document may be
  /// thrown away only.   @throws std::bad_alloc
  bool parse(const std::string& json);

  /// @name After a parse that gave true. Places are indices of nodes.
  /// @{
  static constexpr std::uint32_t kMember = 1;  ///< the place of the one member at the top

  const Node& at(std::uint32_t place) const { return nodes_[place]; }
  std::string_view key(const Node& node) const { return piece(node.key, node.key_size); }
  std::string_view text(const Node& node) const { return piece(node.text, node.text_size); }

  /// The last member of this key; null when there is none, and for what is no object.
  const Node* find(std::uint32_t object, std::string_view wanted) const;

  std::uint32_t placeOf(const Node& node) const {
    return static_cast<std::uint32_t>(&node - nodes_.data());
  }
  /// @}

 private:
  std::string_view piece(std::size_t begin, std::size_t size) const {
    return std::string_view(texts_).substr(begin, size);
  }

  std::vector<Node> nodes_;  ///< in the order of the text
  std::string texts_;
};

#endif
