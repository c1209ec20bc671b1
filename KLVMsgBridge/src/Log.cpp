#include "Log.h"

#include <cstdio>
#include <ctime>

namespace {

std::string Now() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts = {};
    gmtime_r(&now.tv_sec, &parts);
    char text[40];
    const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text + size, sizeof text - size, ".%03ldZ", now.tv_nsec / 1000000);
    return text;
}

}  // namespace

std::string Log::Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char one : text) {
        char code[8];
        if (one == '"' || one == '\\') {
            quoted += {'\\', one};
        } else if (one >= ' ' && one <= '~') {
            quoted += one;
        } else {
            std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned char>(one));
            quoted += code;
        }
    }
    return quoted + '"';
}

void Log::Say(const char* event, const std::string& words) {
    const std::string line = m_isJson ? "{\"time\": \"" + Now() + "\", \"event\": \"" + event +
                                            "\", \"text\": " + Quoted(words) + "}\n"
                                      : "klvmsg-bridge: " + words + "\n";
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::fputs(line.c_str(), stderr);
}

std::string Counts::Words() const {
    std::string words = "from sessions " + std::to_string(taken) + ", published " +
                        std::to_string(published) + ", sent again " + std::to_string(again) +
                        ", dropped " + std::to_string(dropped) + ", without a subject " +
                        std::to_string(noRoute);
    return words + "; from NATS " + std::to_string(came) + ", handed on " +
           std::to_string(handedOn) + ", undelivered " + std::to_string(undelivered) +
           ", came back " + std::to_string(cameBack);
}
