// Direct access to values of existing keys under HKEY_LOCAL_MACHINE, as the
// driver operations need it: the key is opened for each access (it is never
// created here) and closed afterwards. Results are Win32 error numbers.
#pragma once

#include <cstdint>

#include "foundation/string.h"

namespace driver_registry {
long setString(const STRING& subkey, const STRING& name, const STRING& value);
long getString(const STRING& subkey, const STRING& name, STRING& value);
long setDword(const STRING& subkey, const STRING& name, uint32_t value);
}  // namespace driver_registry
