/*
 * Scaling with processes: N client helpers, each calling its own server process, started
 * together; the figure is their total calls per second.
 *
 * A client helper prints "ready" once it can call, waits for SIGUSR1 (every client gets it at
 * once), calls for the given time and prints "done CALLS NANOSECONDS". Anything else it prints
 * ends up in the failure message.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace hostbinder_bench {

// Helper side. blockStartSignal() comes first in a helper's main, before any thread starts,
// so that the start signal can only be taken by runTimedClient(); runTimedClient() runs the
// protocol above around `call` and returns the helper's exit status.
void blockStartSignal();
int runTimedClient(const std::function<bool()>& call, int durationMs);

// Benchmark side: starts `count` client helpers (`clientArgs(i)` gives the arguments of the
// i-th), starts them together once all are ready and returns their total calls per second,
// or -1 with `*why` set when one fails or misses a deadline.
double runClients(int count, int durationMs,
                  const std::function<std::vector<std::string>(int)>& clientArgs, std::string* why);

}  // namespace hostbinder_bench
