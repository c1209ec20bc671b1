#include "Messages.h"

void Body::Text(std::string& text) {
    std::uint64_t length = text.size();
    Number(length);
    complete = complete && length <= static_cast<std::uint64_t>(maximalTextBytes);
    if (complete) {
        text.resize(static_cast<std::size_t>(length));  // no change when writing
        Bytes(text.data(), static_cast<int>(length));
    }
}

// A stream may move less than it was asked for: go on until the field is whole or the peer has
// gone. The count starts at 0 each time, since a write adds to it.
void Body::Bytes(void* field, int length) {
    for (int done = 0; complete && done < length;) {
        char* const rest = static_cast<char*>(field) + done;
        int count = 0;
        if (m_output != nullptr) {
            m_output->write(rest, length - done, count);
        } else {
            m_input->read(rest, length - done, count);
        }
        complete = count > 0;
        done += count;
    }
}
