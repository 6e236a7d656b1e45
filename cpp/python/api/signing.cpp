// SolaceAPI: certificate activation and signing.
#include "api.hpp"

namespace quorvex::api {

void define_signing(ApiClass& api) {}

}  // namespace quorvex::api
