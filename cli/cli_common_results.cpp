#include "cli/cli_common.h"
