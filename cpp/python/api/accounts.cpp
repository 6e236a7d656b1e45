// SolaceAPI: balance, margin, settlements, positions, profit and loss.
#include "api.hpp"

namespace quorvex::api {

void define_accounts(ApiClass& api) {}

}  // namespace quorvex::api
