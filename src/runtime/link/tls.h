// What TLS does where a connection ends.
#pragma once

#include <mosquitto.h>

namespace Quorval::runtime {

/// A broker that refuses a certificate says so and resets the connection, often before this end has
/// written its first packet, and the library closes a connection with the first write that fails.
/// Has such a write wait until what the broker has said is read; that is what a client wants until
/// the broker has answered. Does nothing where there is no connection over TLS.
void read_last_words(mosquitto* client, bool wants);

}  // namespace Quorval::runtime
