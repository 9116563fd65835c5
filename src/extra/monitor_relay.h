/*
 * monitor_relay.h -- carries the events of a socket's monitor to a script's endpoint.
 */
#ifndef PARVO_EXTRA_MONITOR_RELAY_H
#define PARVO_EXTRA_MONITOR_RELAY_H

struct PVMonitor;
struct PVSocketAccess;

constexpr int monitorStopped = 0x0400; // libzmq's number of a monitor's last event

/*
 * Starts to publish events of a ZeroMQ socket that has no monitor.  endpoint: an inproc
 * endpoint, bound when this returns.  events: libzmq's numbers of those wanted, added
 * up.  Returns the monitor, which ends by one call of pv_monitor_stop or
 * pv_monitor_leave; null with errno set after a failure, and nothing is left behind.
 */
PVMonitor* pv_monitor_start(const PVSocketAccess* access, void* socket,
                            const char* endpoint, int events);

/*
 * Ends the monitor of a ZeroMQ socket; its endpoint is free when this returns.  Returns
 * 0, or -1 with errno set when the monitor goes on.
 */
int pv_monitor_stop(PVMonitor* monitor, void* socket);

/*
 * Leaves a monitor, whose socket was closed, to itself: it publishes what still happens
 * to the connections and ends with the socket's last one.
 */
void pv_monitor_leave(PVMonitor* monitor);

#endif
