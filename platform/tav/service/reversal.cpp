#include "service/reversal.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <stdexcept>
#include <utility>

namespace tav {

namespace {

std::string encoded(const std::vector<Item> &items) {
    Writer out;
    put_all(out, items);
    return out.finish().substr(length_bytes);
}

} // namespace

// Its author is no session, and the limit of bytes does not apply.
Reversal::Reversal(Store &changed, PendingPtr reverted)
    : store(changed), pending(std::move(reverted)),
      steps(encoded(steps_to_revert(*pending, store.group_tree()))), refusals(store.refusals()),
      transaction(
          store.group_tree(), steps, std::time(nullptr), SIZE_MAX,
          [](const std::string & /*path*/) { return false; },
          [this](const Event &event) { store.events().stage(staged, event, 0); }) {}

bool Reversal::advance(const Author &author) {
    const Transaction::State state = transaction.advance();
    if (state == Transaction::State::working) {
        return false;
    }
    if (state != Transaction::State::complete) {
        const std::vector<api_status_t> &all = transaction.statuses();
        const auto reason = std::find_if(all.begin(), all.end(), [](api_status_t one) {
            return one != api_status_ok && one != api_status_not_done;
        });
        throw std::runtime_error("status " +
                                 std::to_string(reason != all.end() ? *reason : api_status_none));
    }
    store.join(transaction, staged, author, {nullptr, pending});
    return true;
}

} // namespace tav
