// SolaceAPI: logins, logout, trace log.
#include "api.hpp"

namespace quorvex::api {

void define_session(ApiClass& api) {}

}  // namespace quorvex::api
