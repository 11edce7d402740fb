// Operations beyond the public interface, for the store's own command-line tool. They behave like
// those of toolkit::CTav: 0 when the call went through, negative when the connection is lost.
#pragma once

#include <string>
#include <vector>

#include "client/export.h"
#include "protocol/history.h"
#include "protocol/messages.h"

namespace tav {

// Performs all items as one transaction, all or none; one status per item.
TAV_EXPORT int transact(mlr_client_t *client, const std::vector<Item> &items,
                        std::vector<api_status_t> &statuses);

// All elements of the subtree at `path`, including itself, in tree order, as of one moment.
TAV_EXPORT int dump(mlr_client_t *client, const std::string &path, api_status_t &status,
                    std::vector<DumpElement> &elements);

TAV_EXPORT int service_status(mlr_client_t *client, ServiceStatus &status);

// Says how this client is to be called in the history: 1 to 64 bytes, any but NUL. A client with a
// watchdog has the watchdog's name there.
TAV_EXPORT int state_program(mlr_client_t *client, const std::string &name, api_status_t &status);

// The transactions with a number above `since` that changed something at or below `path`; also
// those whose values were not kept. If the status is ok, `history` is replaced. It is
// api_status_refused if the service keeps no history.
TAV_EXPORT int history(mlr_client_t *client, const std::string &path, std::uint64_t since,
                       api_status_t &status, History &history);

} // namespace tav
