// What the host agent answers monitoring scrapes with: the modelled
// interfaces' statuses and counters in the text exposition format.
#pragma once

#include "HostDevice.h"

#include <string>

namespace IntfApp {

std::string metricsText(HostNamespaces const & namespaces);

} // namespace IntfApp
