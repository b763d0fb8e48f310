// Settings of the simulator, read from system properties when the agent is created:
//   "persist.tavo.sim.speed"    multiple of real time at which content and events run
//                               (default 1, accepted 0.1 to 100)
//   "persist.tavo.sim.content"  directory holding <serviceID>.h264 and <serviceID>.aac;
//                               when unset, "/system/etc/tavosim" if it exists, else the
//                               content installed with the library: ../../share/tavombbms/sim
//                               from the directory of the library's file (links resolved)
#ifndef TAVO_SIM_SETTINGS_H
#define TAVO_SIM_SETTINGS_H

#include <chrono>
#include <string>

struct SimSettings {
    double speed = 1.0;
    std::string contentDir;

    static SimSettings fromProperties();

    // A span of broadcast time as wall-clock time at this speed.
    std::chrono::steady_clock::duration scaled(std::chrono::milliseconds broadcastTime) const;
};

#endif  // TAVO_SIM_SETTINGS_H
