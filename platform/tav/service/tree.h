// The tree of settings in memory.
//
// A tree is a value: a copy shares all elements with the original, and a change copies only the
// elements on the way to it. A reader of a copy is therefore never disturbed, and a transaction is
// undone by dropping the tree that it has changed, for which no memory is needed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "protocol/messages.h"
#include "service/path.h"

namespace tav {

// A name and a value: of a node (value.type element_type_node) or a leaf. Shared by the copies of
// an element, and never changed.
struct Content {
    Name name; // the last one of the path; empty for the root
    Value value;
};
using ContentPtr = std::shared_ptr<const Content>;

// The children of a node form a binary tree of their own, in the order of listings. It is balanced
// by random ranks: each child has a higher rank than those to the left and right below it.
struct Element {
    ContentPtr content;
    std::shared_ptr<Element> children; // of a node: the child with the highest rank, or null
    std::shared_ptr<Element> left;     // siblings that come earlier ...
    std::shared_ptr<Element> right;    // ... and later
    std::uint32_t rank = 0;
    std::uint32_t child_count = 0;

    const Value &value() const { return content->value; }
    bool is_node() const { return value().type == element_type_node; }
};
using ElementPtr = std::shared_ptr<Element>;

// The same type and text. The time stamp is not part of the content: it is the time of the last
// change of the content.
bool same_content(const Value &left, const Value &right);

// A number of elements, and the memory that they use.
struct Extent {
    std::size_t nodes = 0;
    std::size_t leaves = 0;
    std::size_t bytes = 0; // estimated from the sizes of the objects

    std::size_t elements() const { return nodes + leaves; }
    void add(const Content &content);
};

// The root of a tree. The elements that only it uses are given back later: there may be many.
class Root {
public:
    explicit Root(ElementPtr root = nullptr) : element(std::move(root)) {}
    Root(const Root &) = default;
    Root(Root &&) = default;
    Root &operator=(Root other) noexcept {
        element.swap(other.element);
        return *this;
    }
    ~Root();

    ElementPtr &operator*() { return element; }
    const Element *get() const { return element.get(); }

private:
    ElementPtr element;
};

class Tree {
public:
    // Creates a tree with only the root.
    Tree();

    const Element &root() const { return *top.get(); }
    // Null if there is nothing at `path`, which must be a path that check_path accepts.
    const Element *find(std::string_view path) const;
    const Extent &extent() const { return all; }
    // Bytes of all elements that were replaced or removed on the way to this version, estimated
    // like those of the extent. An earlier version keeps at most the difference alive.
    std::uint64_t replaced() const { return replaced_bytes; }

    // Adds an element that was stored earlier; its parent is already there. It must pass the same
    // checks as a client's write. Any result except api_status_ok means that nothing was added.
    api_status_t load(const std::string &path, const Value &value);

    // Changes of this copy. `path` is not the root, and its parent is a node of this tree. Each may
    // throw std::bad_alloc; the tree must then be dropped. A result is valid until the next change.
    const Element &add(std::string_view path, Value value);     // where there is nothing
    const Element &replace(std::string_view path, Value value); // of a leaf
    void remove(std::string_view path, Extent removed);         // a subtree of that extent
    // Removes everything but the root.
    void clear();

private:
    friend class Walker;

    Element &own(std::string_view path);

    Root top;
    Extent all;
    std::uint64_t replaced_bytes = 0; // see replaced()
};

// Goes through the elements at and below a path, parents first, in the order of listings. It keeps
// them alive and sees none of the later changes.
class Walker {
public:
    // Null is an empty walk. `path` is that of `start`. Not `deep`: only its children.
    Walker(const Element *start, const Tree &tree, std::string path, bool deep = true);

    // Moves to the next element; false at the end.
    bool next();
    const std::string &path() const { return current; }
    const Element &element() const { return *found; }

private:
    enum class Stage : std::uint8_t { left, self, below, right };
    struct Frame {
        const Element *element;
        std::uint32_t stem; // bytes of the parent's path
        Stage stage;
    };

    Root keep; // of the tree
    std::string current;
    const Element *found;
    bool started = false;
    bool whole;
    std::vector<Frame> stack;
};

// Calls `visit` for each element at and below `path` until it returns false.
void walk(const Tree &tree, const std::string &path,
          const std::function<bool(const std::string &, const Element &)> &visit);

} // namespace tav
