#include "service/garbage.h"

#include <utility>

namespace tav::garbage {

namespace {

struct Heap {
    std::list<Edit::ByPath> maps;
    Edit::Changes changes;
    std::vector<ElementPtr> elements;
    std::vector<EventBatch> events;
};
Heap heap;

// Without room in the list it is given back at once.
void keep(ElementPtr element) noexcept {
    if (element.use_count() == 1) {
        try {
            heap.elements.push_back(std::move(element));
        } catch (const std::bad_alloc &) {
            element.reset();
        }
    }
}

void give_back_element() noexcept {
    const ElementPtr element = std::move(heap.elements.back());
    heap.elements.pop_back();
    if (element.use_count() == 1) {
        for (ElementPtr *part : {&element->children, &element->left, &element->right}) {
            keep(std::move(*part));
        }
    }
}

} // namespace

void add(ElementPtr element) noexcept {
    keep(std::move(element));
}

void add(Edit::Changes &changes) noexcept {
    heap.changes.splice(heap.changes.end(), changes);
}

void add(std::list<Edit::ByPath> &maps) noexcept {
    heap.maps.splice(heap.maps.end(), maps);
}

void add(EventBatch &events) noexcept {
    if (!events.empty()) {
        try {
            std::swap(events, heap.events.emplace_back());
        } catch (const std::bad_alloc &) {
            // They are given back at once.
        }
    }
}

bool empty() noexcept {
    return heap.maps.empty() && heap.changes.empty() && heap.elements.empty() &&
           heap.events.empty();
}

bool give_back() noexcept {
    // A transaction that begins again and again for others drops more in a turn than the smaller
    // number, and what comes last here would wait for ever.
    constexpr int soon = 50;
    static int parts = 0; // since there was nothing left
    const int at_once = parts < soon ? 4096 : 16384;
    const bool some = !empty();
    for (int i = 0; i < at_once && !empty(); ++i) {
        if (!heap.maps.empty()) {
            Edit::ByPath &map = heap.maps.front();
            map.empty() ? heap.maps.pop_front() : static_cast<void>(map.erase(map.begin()));
        } else if (!heap.changes.empty()) {
            heap.changes.pop_front();
        } else if (!heap.events.empty()) {
            if (!heap.events.back().free_one()) {
                heap.events.pop_back();
            }
        } else {
            give_back_element();
        }
    }
    parts = empty() ? 0 : parts + 1;
    return some;
}

} // namespace tav::garbage
