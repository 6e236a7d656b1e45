// SolaceAPI: contract download.
#include "api.hpp"

namespace quorvex::api {

void define_contracts(ApiClass& api) {}

}  // namespace quorvex::api
