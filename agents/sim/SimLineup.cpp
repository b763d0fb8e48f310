#include "SimLineup.h"

namespace {

// Three frequency points with two services each. The identifiers match the files made
// by content/make_content.sh.
const SimService kServices[] = {
    {101, "Harbour News", "news", 13, 1, 4, 1, false},
    {102, "Sports", "sports", 13, 5, 4, 1, true},
    {201, "Movies", "movies", 20, 1, 4, 1, true},
    {202, "Music", "music", 20, 5, 3, 1, false},
    {301, "Kids", "children", 33, 1, 4, 1, false},
    {302, "Weather", "weather", 33, 5, 2, 0, false},
};

const SimFrequency kFrequencies[] = {
    {13, -62, 24},
    {20, -58, 27},
    {33, -71, 18},
};

}  // namespace

size_t SimLineup::serviceCount() {
    return sizeof(kServices) / sizeof(kServices[0]);
}

const SimService& SimLineup::service(size_t index) {
    return kServices[index];
}

size_t SimLineup::frequencyCount() {
    return sizeof(kFrequencies) / sizeof(kFrequencies[0]);
}

const SimFrequency& SimLineup::frequency(size_t index) {
    return kFrequencies[index];
}

const SimFrequency* SimLineup::findFrequency(int freqDot) {
    for (const SimFrequency& frequency : kFrequencies) {
        if (frequency.freqDot == freqDot)
            return &frequency;
    }
    return nullptr;
}

const SimService* SimLineup::findService(int freqDot, int serviceID) {
    for (const SimService& service : kServices) {
        if (service.freqDot == freqDot && service.serviceID == serviceID)
            return &service;
    }
    return nullptr;
}

const SimService* SimLineup::findServiceBySlots(int freqDot, int timeSlotStart, int timeSlotCount) {
    for (const SimService& service : kServices) {
        if (service.freqDot == freqDot && service.timeSlotStart == timeSlotStart &&
            service.timeSlotCount == timeSlotCount) {
            return &service;
        }
    }
    return nullptr;
}
