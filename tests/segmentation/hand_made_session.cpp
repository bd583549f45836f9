#include "tests/segmentation/session.h"
#include "tests/support/amf_bytes.h"
#include "tests/support/chunk_bytes.h"
#include "tests/support/media_bytes.h"

namespace {

constexpr const char* STREAM = "hand_made";
// The base of the media: what follows crosses the end of the 24-bit field.
constexpr std::uint32_t BASE = EXTENDED_TIMESTAMP - 20;

// Appends messages one after another, in the current chunk size.
class Writer {
  public:
    Writer() : bytes("\x03" + pattern_bytes(2 * 1536, 5)) {}

    void send(const OutMessage& message) { bytes += chunked(message, chunk_size); }

    void set_chunk_size(std::uint32_t size) {
        send({.type = MSG_SET_CHUNK_SIZE, .payload = be32(size), .csid = 2});
        chunk_size = size;
    }

    void command(const Bytes& payload, std::uint32_t csid = 3) {
        send({.type = MSG_COMMAND, .payload = payload, .csid = csid});
    }

    // Appends a message in one chunk, with a basic header of this many bytes, which may be more than needed.
    void send_with_basic_header(const OutMessage& message, int size) {
        bytes += basic_header(message.fmt, message.csid, size) + message_header(message) + message.payload;
    }

    Bytes bytes;

  private:
    std::uint32_t chunk_size = DEFAULT_CHUNK_SIZE;
};

void open_stream(Writer& writer) {
    writer.set_chunk_size(64);
    writer.send({.type = MSG_USER_CONTROL, .payload = be16(3) + be32(0) + be32(3000), .csid = 2});
    writer.send({.type = MSG_ACKNOWLEDGEMENT, .payload = be32(3073), .csid = 2, .fmt = 1});
    writer.command(
        amf_string("connect") + amf_number(1) +
        amf_object({{"app", amf_string("ombrex-live")}, {"tcUrl", amf_string("rtmp://host/ombrex-live")}}));
    writer.command(amf_string("createStream") + amf_number(2) + amf_null());
    writer.command(
        amf_string("publish") + amf_number(3) + amf_null() + amf_string(STREAM) + amf_string("live"), 64);
    writer.send({.type = MSG_DATA,
                 .payload = amf_string("@setDataFrame") + amf_string("onMetaData") +
                            amf_ecma_array(2, {{"width", amf_number(640)}, {"height", amf_number(360)}}),
                 .csid = 63,
                 .stream_id = 1});
}

// Appends media in all formats, with basic headers of one, two and three bytes.
void send_media(Writer& writer) {
    writer.send({.type = MSG_AUDIO, .payload = aac_header(), .csid = 4, .timestamp = BASE, .stream_id = 1});
    writer.send({.type = MSG_AUDIO, .payload = aac_frame(1, 20), .csid = 4, .timestamp = 10, .fmt = 1});
    writer.send({.type = MSG_AUDIO, .payload = aac_frame(2, 20), .csid = 4, .timestamp = 10, .fmt = 2});
    writer.send({.type = MSG_AUDIO, .payload = aac_frame(3, 20), .csid = 4, .fmt = 3});
    writer.send({.type = MSG_VIDEO, .payload = avc_header(), .csid = 319, .timestamp = BASE, .stream_id = 1});
    writer.send(
        {.type = MSG_VIDEO, .payload = avc_key_frame(4, 150), .csid = 319, .timestamp = 25, .fmt = 1});
    writer.send(
        {.type = MSG_VIDEO, .payload = avc_inter_frame(5, 150), .csid = 319, .timestamp = 5, .fmt = 2});
    writer.send({.type = MSG_VIDEO, .payload = avc_inter_frame(6, 150), .csid = 319, .fmt = 3});
    writer.send({.type = MSG_VIDEO,
                 .payload = avc_inter_frame(7, 200),
                 .csid = 320,
                 .timestamp = EXTENDED_TIMESTAMP + 17,
                 .stream_id = 1});
    writer.send(
        {.type = MSG_VIDEO, .payload = avc_inter_frame(8, 70), .csid = 320, .timestamp = 1, .fmt = 1});
    writer.send({.type = MSG_VIDEO, .csid = 320, .timestamp = 1, .fmt = 1});
    writer.send({.type = MSG_AUDIO,
                 .payload = aac_frame(9, 130),
                 .csid = 65599,
                 .timestamp = EXTENDED_TIMESTAMP,
                 .stream_id = 1});
    writer.send({.type = MSG_AUDIO, .payload = aac_frame(10, 30), .csid = 65599, .timestamp = 3, .fmt = 1});
    writer.send_with_basic_header(
        {.type = MSG_AUDIO, .payload = aac_frame(11, 10), .csid = 65, .timestamp = BASE + 41, .stream_id = 1},
        3);
    // Neither audio nor video, and control messages on streams where they have no meaning.
    writer.send({.type = 15, .payload = Bytes(9, 'x'), .csid = 6, .timestamp = EXTENDED_TIMESTAMP, .fmt = 1});
    writer.send({.type = MSG_SET_CHUNK_SIZE, .payload = be32(9), .csid = 2, .stream_id = 1});
    writer.send({.type = MSG_SET_CHUNK_SIZE, .payload = be32(9), .csid = 3});
}

// No reply of the main loop may be in transit when a chunk size changes: it could be split by either size.
void change_chunk_sizes(Writer& writer) {
    writer.set_chunk_size(1);
    writer.send({.type = MSG_AUDIO, .payload = aac_frame(12, 20), .csid = 4, .fmt = 3});
    writer.set_chunk_size(4096);
    writer.send(
        {.type = MSG_VIDEO, .payload = avc_key_frame(13, 700), .csid = 319, .timestamp = 1, .fmt = 1});
    writer.send({.type = MSG_WINDOW_ACK_SIZE, .payload = be32(300), .csid = 2});
    writer.send({.type = MSG_AUDIO, .payload = aac_frame(14, 200), .csid = 4, .timestamp = 2, .fmt = 1});
    writer.send({.type = MSG_AUDIO, .payload = aac_frame(15, 200), .csid = 4, .fmt = 3});
    writer.set_chunk_size(100);
    writer.send({.type = MSG_AUDIO, .payload = aac_frame(16, 200), .csid = 4, .fmt = 3});
    writer.command(amf_string("releaseStream") + amf_number(4) + amf_null() + amf_string(STREAM));
}

}  // namespace

Session hand_made_session() {
    Writer writer;
    open_stream(writer);
    send_media(writer);
    change_chunk_sizes(writer);
    return {"hand_made", writer.bytes, STREAM};
}
