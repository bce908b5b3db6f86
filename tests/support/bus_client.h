// The client library on a private bus: connect() and reply_of() live in private_bus.h.
#pragma once

#include "private_bus.h"
