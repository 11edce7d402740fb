// The request for the events that wait for a client.
#pragma once

#include "service/task.h"

namespace tav {

// See make_task().
std::unique_ptr<Task> make_fetch_task(Service &service, Session &session,
                                      const RequestHeader &header, std::string_view content);

} // namespace tav
