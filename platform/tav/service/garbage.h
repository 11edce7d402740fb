// Memory that is no longer used. A large tree or transaction takes long to free, so it is freed a
// part at a time. For one thread only.
#pragma once

#include "service/edit.h"
#include "service/event_log.h"
#include "service/tree.h"

namespace tav::garbage {

// Takes what nothing else uses.
void add(ElementPtr element) noexcept;
void add(Edit::Changes &changes) noexcept;
// Their keys are in changes that were not added earlier.
void add(std::list<Edit::ByPath> &maps) noexcept;
void add(EventBatch &events) noexcept;

// Gives a part back, which takes about a millisecond at most, or a few if there has been something
// for long; false if there was nothing.
bool give_back() noexcept;
bool empty() noexcept;

} // namespace tav::garbage
