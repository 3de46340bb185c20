// Any bytes as the stream of a connection: the first one says in which pieces they arrive.
#include "host/conversation/messageframe.h"

#include <algorithm>
#include <cstdlib>

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

/// Whatever can be read out of a frame can be written and is then the same.
template <typename Frame>
void rewrite(std::string_view payload)
{
    if (const auto frame = Frame::fromPayload(payload)) {
        const QByteArray bytes = frame->toBytes().mid(FrameLimits::headerSize);
        const auto again = Frame::fromPayload({bytes.constData(), std::size_t(bytes.size())});
        require(again && again->toBytes().mid(FrameLimits::headerSize) == bytes);
    }
}

void rewrite(const FrameView &frame)
{
    switch (frame.type) {
    case FrameType::Hello:
        return rewrite<HelloFrame>(frame.payload);
    case FrameType::Offer:
        return rewrite<OfferFrame>(frame.payload);
    case FrameType::Answer:
        return rewrite<AnswerFrame>(frame.payload);
    case FrameType::Finish:
        return rewrite<FinishFrame>(frame.payload);
    case FrameType::Bye:
        return rewrite<ByeFrame>(frame.payload);
    default:
        return; // no fields
    }
}

/// Everything the reader hands out, in one text; Data as one piece per frame or as several is the same.
QByteArray readAll(const QByteArray &bytes, int piece)
{
    QByteArray seen;
    CFrameReader reader;
    FrameView frame{};
    for (int i = 0; i < bytes.size(); i += piece) {
        reader.feed(bytes.mid(i, piece));
        CFrameReader::Step step = CFrameReader::NeedMore;
        while ((step = reader.next(&frame)) == CFrameReader::Ready) {
            require(frame.payload.size() <= std::size_t(FrameLimits::dataBytes));
            if (frame.type != FrameType::Data)
                seen += "frame" + QByteArray::number(int(frame.type));
            seen.append(frame.payload.data(), int(frame.payload.size()));
            rewrite(frame);
        }
        if (step == CFrameReader::Malformed)
            break;
    }
    return seen;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char *>(data) + 1, int(size) - 1);
    require(readAll(bytes, std::max(1, int(data[0]))) == readAll(bytes, std::max(1, bytes.size())));
    return 0;
}
