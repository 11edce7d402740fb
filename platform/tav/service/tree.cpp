#include "service/tree.h"

#include <random>
#include <utility>

#include "protocol/limits.h"
#include "service/blocks.h"
#include "service/garbage.h"
#include "service/value_check.h"

namespace tav {

namespace {

// A client must not be able to predict the ranks, or it could choose names that make the tree deep.
std::uint32_t random_rank() {
    static std::mt19937 generator{std::random_device{}()};
    return static_cast<std::uint32_t>(generator());
}

bool before(const Element &element, const PlacedName &name) {
    return order_of(element.content->name, name) < 0;
}

// Apart from all that is short-lived.
template <typename Object, typename... Arguments>
std::shared_ptr<Object> make(Arguments &&...arguments) {
    return std::allocate_shared<Object>(BlockAllocator<Object>(),
                                        std::forward<Arguments>(arguments)...);
}

// With its counters, and its share of what is unused in its slab.
template <typename Object>
constexpr std::size_t object_bytes = sizeof(Object) + sizeof(void *) + 2 * sizeof(int) +
                                     sizeof(void *);

// Bytes of the copies since a tree has last counted them.
std::size_t copied = 0;

// Makes an element safe to change: one that another copy of the tree shares is replaced by a copy
// of its own. An element is shared if any element above it is, so the way to it must be made safe
// first.
Element &own(ElementPtr &slot) {
    if (slot.use_count() > 1) {
        slot = make<Element>(*slot);
        copied += object_bytes<Element>;
    }
    return *slot;
}

// Splits siblings into those before `name` and those after it.
void split(ElementPtr siblings, const PlacedName &name, ElementPtr &less, ElementPtr &more) {
    if (!siblings) {
        less.reset();
        more.reset();
        return;
    }
    Element &top = own(siblings);
    if (before(top, name)) {
        split(std::move(top.right), name, top.right, more);
        less = std::move(siblings);
    } else {
        split(std::move(top.left), name, less, top.left);
        more = std::move(siblings);
    }
}

// All of `less` come before all of `more`.
ElementPtr join(ElementPtr less, ElementPtr more) {
    if (!less || !more) {
        return less ? std::move(less) : std::move(more);
    }
    if (less->rank > more->rank) {
        Element &top = own(less);
        top.right = join(std::move(top.right), std::move(more));
        return less;
    }
    Element &top = own(more);
    top.left = join(std::move(less), std::move(top.left));
    return more;
}

// Safe to change, as is the way to it.
ElementPtr *slot_of(ElementPtr &siblings, const PlacedName &name) {
    ElementPtr *slot = &siblings;
    while (*slot) {
        Element &element = own(*slot);
        const int order = order_of(name, element.content->name);
        if (order == 0) {
            return slot;
        }
        slot = order < 0 ? &element.left : &element.right;
    }
    return nullptr;
}

void insert(ElementPtr &siblings, ElementPtr added) {
    ElementPtr *slot = &siblings;
    const PlacedName name = added->content->name;
    while (*slot && (*slot)->rank >= added->rank) {
        Element &element = own(*slot);
        slot = before(element, name) ? &element.right : &element.left;
    }
    split(std::move(*slot), name, added->left, added->right);
    *slot = std::move(added);
}

// Of a text outside the string object.
std::size_t heap_bytes(const std::string &text) {
    return text.capacity() > std::string().capacity() ? text.capacity() + 1 + sizeof(void *) : 0;
}

std::string_view last_name(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

} // namespace

bool same_content(const Value &left, const Value &right) {
    return left.type == right.type && left.text == right.text;
}

void Extent::add(const Content &content) {
    ++(content.value.type == element_type_node ? nodes : leaves);
    bytes += object_bytes<Element> + object_bytes<Content> + heap_bytes(content.name.text()) +
             heap_bytes(content.value.text);
}

Root::~Root() {
    garbage::add(std::move(element));
}

Tree::Tree() {
    clear();
}

void Tree::clear() {
    const auto root = make<Element>();
    root->content =
        make<Content>(Content{Name(PlacedName("")), Value{element_type_node, {}, no_time}});
    replaced_bytes += all.bytes;
    all = {};
    all.add(*root->content);
    top = Root(root);
}

const Element *Tree::find(std::string_view path) const {
    const Element *element = top.get();
    while (path.size() > 1) { // of the root only the "/"
        const PlacedName name(take_name(path));
        element = element->children.get();
        int order = 0;
        while (element != nullptr && (order = order_of(name, element->content->name)) != 0) {
            element = order < 0 ? element->left.get() : element->right.get();
        }
        if (element == nullptr) {
            return nullptr;
        }
    }
    return element;
}

api_status_t Tree::load(const std::string &path, const Value &value) {
    const bool node = value.type == element_type_node;
    api_status_t status = check_path(path);
    if (status == api_status_ok && !node) {
        status = check_value(value);
    }
    if (status != api_status_ok) {
        return status;
    }
    const Element *parent = find(parent_path(path));
    if (path == "/" || parent == nullptr) {
        return api_status_absent;
    }
    if (!parent->is_node()) {
        return api_status_wrong_kind;
    }
    if (parent->child_count >= limits::children_per_node) {
        return api_status_too_many_children;
    }
    if (all.elements() >= limits::elements) {
        return api_status_too_many_elements;
    }
    if (find(path) != nullptr) {
        return api_status_refused;
    }
    add(path, node ? Value{element_type_node, {}, no_time} : value);
    return api_status_ok;
}

// The element at `path`, safe to change.
Element &Tree::own(std::string_view path) {
    Element *element = &tav::own(*top);
    while (path.size() > 1) {
        element = slot_of(element->children, PlacedName(take_name(path)))->get();
    }
    return *element;
}

const Element &Tree::add(std::string_view path, Value value) {
    auto element = make<Element>();
    element->rank = random_rank();
    element->content = make<Content>(Content{Name(PlacedName(last_name(path))), std::move(value)});
    Element &parent = own(parent_path(path));
    all.add(*element->content);
    const Element &added = *element;
    insert(parent.children, std::move(element));
    ++parent.child_count;
    replaced_bytes += std::exchange(copied, 0);
    return added;
}

const Element &Tree::replace(std::string_view path, Value value) {
    Element &element = own(path);
    replaced_bytes +=
        std::exchange(copied, 0) + object_bytes<Content> + heap_bytes(element.content->value.text);
    all.bytes -= heap_bytes(element.content->value.text);
    element.content = make<Content>(Content{element.content->name, std::move(value)});
    all.bytes += heap_bytes(element.content->value.text);
    return element;
}

void Tree::remove(std::string_view path, Extent removed) {
    Element &parent = own(parent_path(path));
    ElementPtr &slot = *slot_of(parent.children, PlacedName(last_name(path)));
    ElementPtr gone = std::move(slot);
    slot = join(std::move(gone->left), std::move(gone->right));
    garbage::add(std::move(gone));
    --parent.child_count;
    all.nodes -= removed.nodes;
    all.leaves -= removed.leaves;
    all.bytes -= removed.bytes;
    replaced_bytes += std::exchange(copied, 0) + removed.bytes;
}

Walker::Walker(const Element *start, const Tree &tree, std::string path, bool deep)
    : keep(tree.top), current(std::move(path)), found(start), whole(deep) {
    if (start != nullptr) {
        stack.push_back(Frame{start, 0, Stage::below});
    }
}

bool Walker::next() {
    if (!started) {
        started = true;
        return found != nullptr;
    }
    while (!stack.empty()) {
        Frame &frame = stack.back();
        const Element &element = *frame.element;
        const std::uint32_t stem = frame.stem;
        switch (frame.stage) {
        case Stage::left:
            frame.stage = Stage::self;
            if (element.left) {
                stack.push_back(Frame{element.left.get(), stem, Stage::left});
            }
            break;
        case Stage::self:
            frame.stage = Stage::below;
            current.resize(stem);
            current += '/';
            current += element.content->name.text();
            found = &element;
            return true;
        case Stage::below: {
            frame.stage = Stage::right;
            const std::size_t length = current == "/" ? 0 : current.size();
            if (element.children && (whole || stack.size() == 1)) {
                stack.push_back(
                    Frame{element.children.get(), static_cast<std::uint32_t>(length), Stage::left});
            }
            break;
        }
        case Stage::right:
            stack.pop_back();
            // The start's siblings are not below it.
            if (!stack.empty() && element.right) {
                stack.push_back(Frame{element.right.get(), stem, Stage::left});
            }
            break;
        }
    }
    return false;
}

void walk(const Tree &tree, const std::string &path,
          const std::function<bool(const std::string &, const Element &)> &visit) {
    Walker walker(tree.find(path), tree, path);
    while (walker.next() && visit(walker.path(), walker.element())) {
    }
}

} // namespace tav
