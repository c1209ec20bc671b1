#include "KLVBasUtlsleep.h"

#include <chrono>
#include <thread>

void KLVBasUtlsleep(unsigned milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}
