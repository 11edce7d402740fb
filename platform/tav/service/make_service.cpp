#include <utility>

#include "service/service.h"

namespace tav {

std::unique_ptr<Service> make_service(Store &served, std::string database) {
    return std::make_unique<Service>(served, std::move(database), std::chrono::steady_clock::now);
}

} // namespace tav
