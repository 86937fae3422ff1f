// Command messages by name: starting one, filling its fields, decoding it.
//
// One table describes every record: field name, offset and width, arrays of records as nested
// groups. Text longer than its field is the caller's to refuse (put_field cuts it); decoding never
// reads past the frame, whatever it holds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kessard/cmd_msg.h"

namespace kessctl {

// One member of a record. A list of items ends with one without a name.
struct item {
    const char* name;
    std::size_t at;     // bytes from the start of the record
    std::size_t size;   // bytes of the field, or of one record of a group
    std::size_t count;  // records of a group; 0 for a field
    const item* inside; // items of a group's record
};

struct field_value {
    std::string name; // "result_code", "elements[0].service_id"
    std::string text; // without terminator and trailing blanks
};

extern const item ACTIVE_SERVICE_ITEMS[]; // of ACTIVE_SERVICE_DETAIL

// A message of `type` with the magic written and every other byte zero.
TCP_CMD_MSG start_frame(char type);

// "HEALTH_CHECK_REQ" for '0' and so on; "UNKNOWN" for a code that no message has.
const char* message_name(char type);

// Whether the code is that of a request.
bool is_request(char type);

// The code that the response to the request `type` carries; 0 when it is no request or has no
// response of this form.
char response_type(char type);

// The fields of the record that the frame's type names, in their order. Of a group `elements` only
// the first element_num records are listed, at most as many as the array holds. Empty for an
// unknown type.
std::vector<field_value> decode(const TCP_CMD_MSG& frame);

// Appends the fields of the record at `bytes`, their names behind `prefix`.
void decode_record(const item* items, const char* bytes, const std::string& prefix,
                   std::vector<field_value>& out);

// The text of the decoded field `name`; empty when the frame has no such field.
std::string field_text(const TCP_CMD_MSG& frame, std::string_view name);

// A SET_MODIFIED_SERVICE_REQ with at most eight services.
TCP_CMD_MSG modified_services_frame(const SERVICE_ELEMENT* services, std::size_t count);

// A GET_SERVICE_LIST_RSP with at most eight services; `last` marks the end of the list.
TCP_CMD_MSG service_block_frame(const SERVICE_ELEMENT* services, std::size_t count, bool last);

} // namespace kessctl
