/// @file
/// Yielding while another thread initialises a function-local static.
#pragma once

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// Gives up the rest of the calling thread's time slice so that another thread can finish
/// initialising a function-local static (or any short critical section) that the caller
/// is spinning on. Never throws; any thread.
ZU_EXPORT void SafeStaticThreadYield();

}  // namespace Zu
}  // namespace Varkel
