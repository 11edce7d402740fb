// A store client with arbitrary prepared answers, in place of the fake store.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include <tav/toolkit.h>

namespace scripted_tav {

// The expected arguments of one call, and its answer. If `result` is not 0, the outputs are not
// changed.
struct answer_t {
    std::string operation;        // "get_leaf", "get_leaves" or "list_node"
    std::vector<tk_string> paths; // the arguments expected
    int result = 0;
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<toolkit::child_t> children;
};

// The remaining answers. A call without an answer, or with one for another call, is an error.
std::deque<answer_t> &script();

} // namespace scripted_tav
