// The requests that concern the history.
#pragma once

#include "service/task.h"

namespace tav {

// See make_task().
std::unique_ptr<Task> make_history_task(Service &service, Session &session,
                                        const RequestHeader &header, std::string_view content);

} // namespace tav
