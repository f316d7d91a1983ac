// The exceptions of the cloud client.
#pragma once

#include "base/include/exceptions.h"

namespace lumo {

// Protocol and parsing failures. Result code -1.
LUMO_DECLARE_EXCEPTION(CloudException, Base_Exception);
// The pool has no connection to give. Result code -1.
LUMO_DECLARE_EXCEPTION(CloudConnException, Base_Exception);
// Connectors cannot be found. Result code -1.
LUMO_DECLARE_EXCEPTION(CloudConnectorException, Base_Exception);
// The machine cannot sign in at a connector. Result code 9.
LUMO_DECLARE_EXCEPTION(CloudIwaException, Base_Exception);

}  // namespace lumo
