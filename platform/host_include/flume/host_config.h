// Host-only configuration of the HTTP carrier.
#ifndef FLUME_HOST_CONFIG_H
#define FLUME_HOST_CONFIG_H

namespace flume {

// For transfers started from now on: give up on a connection after
// `connectMs`, and on a transfer when no byte moved for `idleMs` (0: never).
void setDefaultTimeouts(long connectMs, long idleMs);

}  // namespace flume

#endif  // FLUME_HOST_CONFIG_H
