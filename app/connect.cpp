// The connect command: selects the application and describes the server.
#include <cstdint>
#include <string>

#include "amf/amf_dump.h"
#include "amf/amf_value.h"
#include "app/command_args.h"
#include "app/command_table.h"
#include "app/random_number.h"
#include "app/reply.h"
#include "base/diag.h"
#include "core/connection.h"

namespace {

// connect is the first command of a session, so its transaction id is 1.
bool is_first_transaction(const AMF_Value& transaction_id) {
    if (transaction_id.type == AMF_Type::Number) {
        return transaction_id.number == 1.0;
    }
    return transaction_id.type == AMF_Type::Boolean && transaction_id.boolean != 0;
}

AMF_Value server_properties() {
    AMF_Value properties;
    properties.type = AMF_Type::Object;
    properties.member("fmsVer").set_string("FMS/3,5,5,2004");
    properties.member("capabilities").set_number(31);
    properties.member("mode").set_number(1);
    return properties;
}

AMF_Value connect_information(std::uint32_t client_id) {
    AMF_Value information;
    information.type = AMF_Type::Object;
    information.member("level").set_string("status");
    information.member("code").set_string("NetConnection.Connect.Success");
    information.member("description").set_string("Connection succeeded");
    information.member("version").set_string("3,5,5,2004");
    information.member("objectEncoding").set_number(0);
    information.member("serverImplementation").set_string("Ombrex RTMP server/1.0");
    information.member("clientId").set_number(client_id);
    return information;
}

// Returns the "app" that the client asks for, with one trailing slash removed. The string is used whatever
// the value's type.
std::string requested_application(const AMF_Value& command_object) {
    std::string name = command_object.find_member("app").string;
    if (name.ends_with('/')) {
        name.pop_back();
    }
    return name;
}

}  // namespace

bool handle_connect(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args) {
    AMF_Value transaction_id;
    AMF_Value command_object;
    if (!args.read(transaction_id) || !is_first_transaction(transaction_id) || !args.read(command_object)) {
        return false;
    }
    AMF_DumpValue(command_object, DUMP_INDENT);
    if (!args.skip_optional()) {
        return false;
    }
    conn.client_id = random_product();
    const std::string name = requested_application(command_object);
    // The two names are treated alike from here on.
    if (name != "ombrex-live" && name != "ombrex-output") {
        return refuse("rejected app %s\n", name.c_str());
    }
    diag("accepted app %s\n", name.c_str());
    conn.app_name = name;

    const AMF_Value result = string_value("_result");
    const AMF_Value properties = server_properties();
    const AMF_Value information = connect_information(conn.client_id);
    return queue_reply(conn, request, {&result, &transaction_id, &properties, &information});
}
