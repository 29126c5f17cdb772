// Rate units of the networking library: plain doubles, named for what they count.
#pragma once

namespace Zenet {

using PacketsPerSecond = double;
using BitsPerSecond = double;

} // namespace Zenet
