// Turns tavd into a service with faults: the environment variable TAVD_FAULT is the plan.
#include <cstdlib>
#include <stdexcept>

#include "faults/faulty_service.h"

namespace tav {

std::unique_ptr<Service> make_service(Store &served, std::string database) {
    const char *text = std::getenv("TAVD_FAULT");
    if (text == nullptr) {
        throw std::runtime_error("TAVD_FAULT must hold a plan: see faults/plan.h");
    }
    return std::make_unique<faults::FaultyService>(served, std::move(database), faults::Plan(text));
}

} // namespace tav
