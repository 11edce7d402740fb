// The requests that concern changes that wait for their confirmation.
#pragma once

#include "service/task.h"

namespace tav {

// See make_task().
std::unique_ptr<Task> make_pending_task(Service &service, Session &session,
                                        const RequestHeader &header, std::string_view content);

} // namespace tav
