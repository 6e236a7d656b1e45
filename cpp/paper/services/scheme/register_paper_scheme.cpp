// Linked into a module, this registers the paper:// scheme as the module loads, so a session of
// that module can connect to paper://NAME with nothing else to start.
#include "quorvex/paper/paper_broker.hpp"

namespace {

const bool kPaperSchemeRegistered = (quorvex::paper::register_paper_scheme(), true);

}  // namespace
