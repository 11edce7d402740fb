// What an operation of a user changes in the store; the model and the real world share it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "operations.h"

namespace model {

struct StoreChange {
    std::vector<std::pair<std::string, std::string>> pairs; // written first, as one transaction
    std::string removed;                                    // then this node; empty: none
};

// `read` gives the present text of a leaf. Paths are relative to the node that holds the
// interfaces. Kind::touch is not for here.
StoreChange change_of(const Operation &operation,
                      const std::function<std::optional<std::string>(const std::string &)> &read);

} // namespace model
