#include "client/snapshot.h"

#include <functional>

#include "service/path.h"

namespace tav {

namespace {

// Somebody may choose names that all get the same place.
constexpr std::size_t longest_search = 256;

} // namespace

Snapshot::Taken Snapshot::take(const std::string &path, std::string answer) {
    clear();
    content = std::move(answer);
    Reader in(content);
    api_status_t status = api_status_none;
    get(in, status);
    Taken taken = Taken::none;
    if (status == api_status_ok) {
        elements.emplace_back().element.type = element_type_node;
        taken = read(in);
    }
    if (!in.finished()) {
        taken = Taken::malformed;
    }
    if (taken == Taken::all) {
        places.assign(1, none);
        while (places.size() < 2 * elements.size()) {
            places.resize(2 * places.size());
        }
        for (Index number = 1; number < elements.size() && taken == Taken::all; ++number) {
            taken = enter(number) ? taken : Taken::none;
        }
    }
    if (taken == Taken::all) {
        top = path;
    } else {
        clear();
    }
    return taken;
}

void Snapshot::clear() {
    top.clear();
    content = {};
    elements = {};
    places = {};
}

// Each element is a child of one of the elements on the way to the one before it.
Snapshot::Taken Snapshot::read(Reader &in) {
    std::vector<Index> way{none}; // the last element of each depth
    for (;;) {
        AheadElement element;
        get(in, element);
        if (!in.ok() || element.depth == depth_end || element.depth == depth_too_large) {
            return element.depth == depth_end ? Taken::all : Taken::none;
        }
        const auto number = static_cast<Index>(elements.size());
        if (element.depth > way.size() ||
            elements[way[element.depth - 1U]].element.type != element_type_node) {
            in.fail();
            return Taken::none;
        }
        const Index parent = way[element.depth - 1U];
        if (element.depth < way.size()) {
            elements[way[element.depth]].next = number;
        } else {
            elements[parent].first = number;
        }
        way.resize(element.depth);
        way.push_back(number);
        elements.push_back({element, parent, none, none});
    }
}

// Where the search for an element begins.
std::size_t Snapshot::place(Index parent, std::string_view name) const {
    constexpr std::size_t spread = 0x9e3779b1U;
    return (std::hash<std::string_view>()(name) + parent * spread) & (places.size() - 1);
}

bool Snapshot::enter(Index number) {
    const Found &entered = elements[number];
    std::size_t at = place(entered.parent, entered.element.name);
    for (std::size_t i = 0; i < longest_search; ++i, at = (at + 1) & (places.size() - 1)) {
        if (places[at] == none) {
            places[at] = number;
            return true;
        }
    }
    return false;
}

// api_status_ok, api_status_absent, or api_status_none if only the service can know it.
api_status_t Snapshot::find(const std::string &path, Index &found) const {
    if (top.empty() || path.empty() || path.front() != '/' || !is_at_or_below(path, top)) {
        return api_status_none;
    }
    found = none;
    std::string_view rest = std::string_view(path).substr(top == "/" ? 0 : top.size());
    while (!rest.empty() && rest != "/") {
        const Index parent = found;
        const std::string_view name = take_name(rest);
        std::size_t at = place(parent, name);
        for (found = places[at]; found != none; found = places[at]) {
            const Found &candidate = elements[found];
            if (candidate.parent == parent && candidate.element.name == name) {
                break;
            }
            at = (at + 1) & (places.size() - 1);
        }
        if (found == none) {
            return check_path(path) == api_status_ok ? api_status_absent : api_status_none;
        }
    }
    return rest.empty() || path == "/" ? api_status_ok : api_status_none;
}

bool Snapshot::leaf(const std::string &path, LeafAnswer &answer) const {
    Index found = none;
    answer.status = find(path, found);
    if (answer.status == api_status_ok) {
        const AheadElement &element = elements[found].element;
        if (element.type == element_type_node) {
            answer.status = api_status_wrong_kind;
        } else {
            answer.value = {element.type, std::string(element.text), element.time};
        }
    }
    return answer.status != api_status_none;
}

bool Snapshot::list(const std::string &path, api_status_t &status,
                    std::vector<Child> &children) const {
    Index found = none;
    status = find(path, found);
    if (status == api_status_ok && elements[found].element.type != element_type_node) {
        status = api_status_wrong_kind;
    } else if (status == api_status_ok) {
        for (Index child = elements[found].first; child != none; child = elements[child].next) {
            children.push_back(
                {std::string(elements[child].element.name), elements[child].element.type});
        }
    }
    return status != api_status_none;
}

} // namespace tav
