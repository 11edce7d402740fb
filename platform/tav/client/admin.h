// Operations beyond the public interface, for the store's own command-line tool. They behave like
// those of toolkit::CTav: 0 when the call went through, negative when the connection is lost.
#pragma once

#include <string>
#include <vector>

#include "client/export.h"
#include "protocol/messages.h"

namespace tav {

// Performs all items as one transaction, all or none; one status per item.
TAV_EXPORT int transact(mlr_client_t *client, const std::vector<Item> &items,
                        std::vector<api_status_t> &statuses);

// All elements of the subtree at `path`, including itself, in tree order, as of one moment.
TAV_EXPORT int dump(mlr_client_t *client, const std::string &path, api_status_t &status,
                    std::vector<DumpElement> &elements);

TAV_EXPORT int service_status(mlr_client_t *client, ServiceStatus &status);

} // namespace tav
