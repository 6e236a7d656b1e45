// SolaceAPI: reservation and earmarking.
#include "api.hpp"

namespace quorvex::api {

void define_reserve(ApiClass& api) {}

}  // namespace quorvex::api
