// SolaceAPI: quote subscription and routing, history, snapshots, scanners.
#include "api.hpp"

namespace quorvex::api {

void define_market_data(ApiClass& api) {}

}  // namespace quorvex::api
