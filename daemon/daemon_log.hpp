// The daemon's own log: its start-up, its peers and the request protocol write here.
#pragma once

#include "foundation/log.hpp"

qm::Log& daemon_log();
