// The message buses of a machine.
#pragma once

namespace Quorval {

/// A message bus, see dbus-daemon(1).
enum class Bus {
    None,
    User,   ///< of the user's session, $DBUS_SESSION_BUS_ADDRESS
    System  ///< of the machine
};

}  // namespace Quorval
