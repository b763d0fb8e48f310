#include "SimServiceGuide.h"

#include "FormatString.h"
#include "SimLineup.h"

namespace {

struct Programme {
    std::string title;
    int startMinute;  // minutes after midnight
    int minutes;
};

// Three programmes per service, named after its genre.
std::vector<Programme> programmesFor(const SimService& service) {
    static const char* const kPart[3] = {"Morning", "Midday", "Evening"};
    std::vector<Programme> programmes;
    for (int i = 0; i < 3; ++i) {
        programmes.push_back({formatString("%s %s", kPart[i], service.genre),
                              8 * 60 + i * 4 * 60 + (service.serviceID % 7) * 5, 30 + 15 * i});
    }
    return programmes;
}

}  // namespace

std::vector<SimGuideFragment> buildServiceGuide() {
    std::vector<SimGuideFragment> guide;
    const size_t count = SimLineup::serviceCount();

    for (size_t i = 0; i < count; ++i) {
        const SimService& s = SimLineup::service(i);
        guide.push_back(
            {ESG_SERVICE,
             formatString("<Service serviceID=\"%d\" name=\"%s\" genre=\"%s\" freqDot=\"%d\" "
                          "timeSlotStart=\"%d\" timeSlotCount=\"%d\" modulation=\"%d\" "
                          "scrambled=\"%s\"/>",
                          s.serviceID, s.name, s.genre, s.freqDot, s.timeSlotStart, s.timeSlotCount,
                          s.modulation, s.scrambled ? "true" : "false")});
    }
    for (size_t i = 0; i < count; ++i) {
        const SimService& s = SimLineup::service(i);
        guide.push_back(
            {ESG_SERVICE_AUX,
             formatString("<ServiceAux serviceID=\"%d\" language=\"zho\" "
                          "video=\"H.264 320x240 25fps\" audio=\"AAC-LC 24kHz stereo\"/>",
                          s.serviceID)});
    }
    for (size_t i = 0; i < count; ++i) {
        const SimService& s = SimLineup::service(i);
        std::vector<Programme> programmes = programmesFor(s);
        std::string xml = formatString("<Schedule serviceID=\"%d\">", s.serviceID);
        for (int p = 0; p < 3; ++p) {
            xml += formatString("<Event contentID=\"%d%02d\" start=\"%02d:%02d\" minutes=\"%d\"/>",
                                s.serviceID, p, programmes[p].startMinute / 60,
                                programmes[p].startMinute % 60, programmes[p].minutes);
        }
        xml += "</Schedule>";
        guide.push_back({ESG_SCHEDULE, xml});
    }
    for (size_t i = 0; i < count; ++i) {
        const SimService& s = SimLineup::service(i);
        std::vector<Programme> programmes = programmesFor(s);
        for (int p = 0; p < 3; ++p) {
            guide.push_back(
                {ESG_CONTENT, formatString("<Content contentID=\"%d%02d\" title=\"%s\"/>",
                                           s.serviceID, p, programmes[p].title.c_str())});
        }
    }
    for (size_t i = 0; i < count; ++i) {
        const SimService& s = SimLineup::service(i);
        guide.push_back(
            {ESG_ACCESS,
             formatString("<Access serviceID=\"%d\" freqDot=\"%d\" timeSlotStart=\"%d\" "
                          "timeSlotCount=\"%d\" modulation=\"%d\"/>",
                          s.serviceID, s.freqDot, s.timeSlotStart, s.timeSlotCount, s.modulation)});
    }
    return guide;
}
