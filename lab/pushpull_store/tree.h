// The store's JSON tree and the paths into it.
//
// A path is "/name/name...", a number selecting an element of an array; "/" is the whole tree.
// Empty parts are passed over.
#ifndef LAB_PUSHPULL_STORE_TREE_H
#define LAB_PUSHPULL_STORE_TREE_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace lab {

using Json = nlohmann::ordered_json;
using Path = std::vector<std::string>;

/// @throws std::invalid_argument when the text does not begin with "/".
Path parse_path(const std::string& text);

/// Paths separated by ";". @throws std::invalid_argument when one is no path, or there is none.
std::vector<Path> parse_paths(const std::string& text);

std::string to_text(const Path& path);

/// @throws std::invalid_argument for what is no JSON or nested deeper than 128.
Json parse_json(const std::string& text);

/// @return the node, or null when there is none.
const Json* find_node(const Json& tree, const Path& path);
Json* find_node(Json& tree, const Path& path);

/// A document with the node alone, in the nesting that it has from the top of the tree.
/// `node` is what find_node(tree, path) gave.
Json nested_document(const Json& tree, const Path& path, const Json& node);

/// Stores a document: objects are merged member by member, everything else is replaced.
void merge(Json& tree, const Json& document);

/// Whether storing the document writes the node, something in it, or something it lies in.
bool touches(const Json& document, const Path& path);

}  // namespace lab

#endif
