// The electronic service guide the simulator broadcasts: XML fragments describing every
// service of the network, its auxiliary data, a short schedule with its programmes, and
// how to access it. Built on demand on the control thread.
#ifndef TAVO_SIM_SERVICE_GUIDE_H
#define TAVO_SIM_SERVICE_GUIDE_H

#include <string>
#include <vector>

#include "TavoMBBMSEngine.h"

struct SimGuideFragment {
    ESGType type;
    std::string xml;
};

// All fragments, in broadcast order: services, service auxiliary data, schedules,
// contents, access descriptions.
std::vector<SimGuideFragment> buildServiceGuide();

#endif  // TAVO_SIM_SERVICE_GUIDE_H
