#include "base/include/logger.h"

boost::shared_ptr<lumo::Logger> getLogger(const char* name, bool diag) {
  return lumo::Logger::GetThreadPrivateLogger(diag ? std::string("diag.") + name : std::string(name));
}
