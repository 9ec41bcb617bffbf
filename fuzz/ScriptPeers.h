// Loopback peers for the script target's parked calls: one thread serves a
// listener per kind on 127.0.0.1, for the life of the process. Every
// connection ends by itself within a fraction of a second, so no fetch or
// wait against a peer stalls a run.
#pragma once

namespace Fuzz {

enum class PeerKind { Silent, Reset, Garbage, Tls, Count };

// The port of a peer of that kind; starts the peers on first use. The TLS
// peer completes a handshake with tests/data/tls/server.pem, then sends 64
// one-byte records.
int PeerPort(PeerKind kind);

}  // namespace Fuzz
