// A store client that gives prepared answers, whatever they are, in the place of the fake store.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include <tav/toolkit.h>

namespace scripted_tav {

// What one call is to be asked and what it then gives. When `result` is not 0 the outputs stay as
// the caller had them.
struct answer_t {
    std::string operation;        // "get_leaf", "get_leaves" or "list_node"
    std::vector<tk_string> paths; // the arguments expected
    int result = 0;
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<toolkit::child_t> children;
};

// The answers still to be given. A call that finds none, or another one's, is a finding.
std::deque<answer_t> &script();

} // namespace scripted_tav
