#include "KLVMsgBareReading.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "KLVMsgInputStream.h"

namespace {

// Thrown through a class that asks again and again although there is no more. No std::exception, so
// that a class does not take it for one of its own.
struct AsksForEver {};

// Gives what is there, and then nothing; remembers how far a read would have needed to go.
class Trial final : public KLVMsgInputStream {
public:
    explicit Trial(std::string_view bytes) : m_bytes(bytes) {}

    void read(void* buffer, int length, int& count) override {
        const std::size_t asked = length > 0 ? static_cast<std::size_t>(length) : 0;
        const std::size_t given = std::min(asked, m_bytes.size() - m_position);
        if (given != 0) {
            std::memcpy(buffer, m_bytes.data() + m_position, given);
        }
        m_position += given;
        count = static_cast<int>(given);
        if (given == asked) {
            return;
        }
        if (m_wanted == 0) {
            m_wanted = m_position + (asked - given);
        }
        m_nothings += given == 0 ? 1 : 0;
        if (m_nothings >= kMostNothings) {
            throw AsksForEver();
        }
    }

    std::size_t Position() const { return m_position; }
    bool FellShort() const { return m_wanted != 0; }
    std::size_t Wanted() const { return m_wanted; }  // bytes that the first short read asked for

private:
    static constexpr int kMostNothings = 100;

    const std::string_view m_bytes;
    std::size_t m_position = 0;
    std::size_t m_wanted = 0;
    int m_nothings = 0;
};

}  // namespace

std::unique_ptr<KLVMsgSocketMessage> KLVMsgBareReading::Try(KLVMsgSocketMessage& prototype,
                                                            std::string_view come,
                                                            std::size_t& taken) {
    Trial stream(come);
    std::unique_ptr<KLVMsgSocketMessage> message(prototype.NewInstance());
    if (message == nullptr) {
        throw std::runtime_error("NewInstance has made no object");
    }
    try {
        message->ReadMessage(&stream);
    } catch (...) {
        if (!stream.FellShort()) {
            throw;
        }
    }
    if (!stream.FellShort()) {
        taken = stream.Position();
        return message;
    }
    // What the short read asked for is enough to go on, if that is not too much to read once more;
    // otherwise twice as much as now is.
    m_read += stream.Position();
    const std::size_t affordable = 4 * stream.Wanted() + 65536;
    m_needed = m_read + stream.Wanted() <= affordable ? stream.Wanted()
                                                      : std::max(stream.Wanted(), 2 * come.size());
    return nullptr;
}
