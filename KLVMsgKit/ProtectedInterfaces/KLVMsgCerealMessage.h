// For applications that have cereal: a message whose body is anything that it serializes.
#pragma once

#include <cereal/archives/portable_binary.hpp>
#include <cstddef>
#include <ios>
#include <istream>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "KLVMsgFramedMessage.h"

// Content is a class of the application's with cereal's functions, or a standard one such as
// std::map<std::string, double>; the headers of cereal for its parts are included by whoever uses
// it (<cereal/types/map.hpp>). Its form is cereal's portable binary one, which begins with the byte
// order.
//
//     KLVMsgCerealMessage<std::map<std::string, double>> prices("Prices");
//     prices.content["bolt"] = 0.25;
//
// The sizes of containers inside a body are believed by cereal, which makes room for them at once.
template <class Content>
class KLVMsgCerealMessage : public KLVMsgFramedMessage {
    static_assert(
        std::is_default_constructible<Content>::value,
        "KLVMsgCerealMessage<T>: T needs a constructor without arguments, since a message "
        "that is received is made before its content is read");
    static_assert(
        cereal::traits::is_output_serializable<Content,
                                               cereal::PortableBinaryOutputArchive>::value &&
            cereal::traits::is_input_serializable<Content,
                                                  cereal::PortableBinaryInputArchive>::value,
        "KLVMsgCerealMessage<T>: cereal cannot serialize T: give it a serialize function (or load "
        "and "
        "save), and include the headers of cereal for its parts, such as "
        "<cereal/types/vector.hpp>");

public:
    // A message of the type `typeName`, which has its content from `initial`.
    explicit KLVMsgCerealMessage(const KLVString& typeName, Content initial = Content())
        : content(std::move(initial)), m_type(typeName) {}

    bool Encode(std::string& bytes) const override {
        Sink sink(bytes);
        std::ostream stream(&sink);
        cereal::PortableBinaryOutputArchive archive(stream);
        archive(content);
        return true;
    }

    bool Decode(std::string_view bytes) override {
        Source source(bytes);
        std::istream stream(&source);
        cereal::PortableBinaryInputArchive archive(stream);
        archive(content);
        return true;
    }

    KLVMsgSocketMessage* NewInstance() override { return new KLVMsgCerealMessage(m_type); }
    KLVString GetMessageType() const override { return m_type; }

    Content content;  // what the body holds

private:
    // Appends what is written to a string.
    class Sink : public std::streambuf {
    public:
        explicit Sink(std::string& bytes) : m_bytes(bytes) {}

    private:
        std::streamsize xsputn(const char* data, std::streamsize length) override {
            m_bytes.append(data, static_cast<std::size_t>(length));
            return length;
        }

        std::string& m_bytes;
    };

    // Reads bytes where they are.
    class Source : public std::streambuf {
    public:
        explicit Source(std::string_view bytes) {
            char* const begin = const_cast<char*>(bytes.data());  // a get area is never written to
            setg(begin, begin, begin + bytes.size());
        }
    };

    KLVString m_type;
};
