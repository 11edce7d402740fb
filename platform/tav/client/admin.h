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

// The same, but the service reverts the change unless it is confirmed within `term` milliseconds
// (1 to limits::confirm_term; otherwise each status is api_status_bad_value). `number` identifies
// it; 0 if nothing was changed.
TAV_EXPORT int transact_pending(mlr_client_t *client, const std::vector<Item> &items,
                                std::uint32_t term, std::vector<api_status_t> &statuses,
                                std::uint64_t &number);

// Keeps the change with that number, or with 0 the only one of this client's user; `confirmed` is
// its number if the status is ok. It is api_status_absent if none waits, and api_status_refused if
// several do.
TAV_EXPORT int confirm(mlr_client_t *client, std::uint64_t number, api_status_t &status,
                       std::uint64_t &confirmed);

// The changes that wait for their confirmation, oldest first.
TAV_EXPORT int pending(mlr_client_t *client, std::vector<PendingChange> &changes);

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
