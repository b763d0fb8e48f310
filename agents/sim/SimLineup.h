// The simulated broadcast network: which frequency points carry a signal and which
// services each one multiplexes. Fixed at build time; read-only, so any thread may use it.
#ifndef TAVO_SIM_LINEUP_H
#define TAVO_SIM_LINEUP_H

#include <cstddef>

struct SimService {
    int serviceID;      // CMMB service identifier; also names the content files
    const char* name;   // shown in the service guide
    const char* genre;  // service guide genre
    int freqDot;        // frequency point that carries it
    int timeSlotStart;  // first time slot of its multiplex sub-frame
    int timeSlotCount;  // number of time slots
    int modulation;     // 0 BPSK, 1 QPSK, 2 16-QAM
    bool scrambled;     // announced with CA information
};

struct SimFrequency {
    int freqDot;
    int strengthDbm;
    int snrDb;
};

class SimLineup {
public:
    static size_t serviceCount();
    static const SimService& service(size_t index);
    static size_t frequencyCount();
    static const SimFrequency& frequency(size_t index);

    // nullptr when the frequency point carries nothing.
    static const SimFrequency* findFrequency(int freqDot);
    // The service of that identifier on that frequency point, or nullptr.
    static const SimService* findService(int freqDot, int serviceID);
    // The service occupying those time slots on that frequency point, or nullptr.
    static const SimService* findServiceBySlots(int freqDot, int timeSlotStart, int timeSlotCount);
};

#endif  // TAVO_SIM_LINEUP_H
