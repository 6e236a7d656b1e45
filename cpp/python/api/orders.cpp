// SolaceAPI: orders, trade book, combination orders.
#include "api.hpp"

namespace quorvex::api {

void define_orders(ApiClass& api) {}

}  // namespace quorvex::api
