/* Output of the lapi tool: every server message as readable text or as one
 * JSON object per line. */
#ifndef LAPI_TOOL_FORMAT_H
#define LAPI_TOOL_FORMAT_H

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <utility>
#include <vector>

#include "lapi_client.h"

namespace lapitool {

/* One line of output: a type, a readable title, and named fields. The
 * readable form is the title, then one "  name: value" line per field; the
 * JSON form is {"type": ..., fields...} on one line. */
class Record {
  public:
    Record(std::string type, std::string title);
    Record &Str(const char *name, const std::string &value);
    Record &Int(const char *name, int64_t value);
    Record &Uint(const char *name, uint64_t value);
    /* fmt is the readable format ("%.7f"); JSON always keeps every digit. */
    Record &Double(const char *name, double value, const char *fmt = "%.3f");
    /* A real that travelled as BP fixed point: printed, in both forms, with
     * no more digits than the 2^-23 steps of the fixed point carry. */
    Record &Fixed(const char *name, double value);
    /* A number whose meaning the table kind gives: JSON keeps the number,
     * the readable form shows its name and the number. */
    Record &Code(const char *name, int64_t value, const struct CodeTable &kind);
    /* Identifiers of the protocol (session and transaction ids, the
     * connection): always in JSON, in the readable form only when verbose. */
    Record &Internal();
    Record &Bool(const char *name, bool value);
    /* A JSON fragment for JSON and its readable rendering. */
    Record &Raw(const char *name, const std::string &json, const std::string &text);
    /* Readable output only: shown after the title, not as a field. */
    Record &Note(const std::string &text);
    void Print(FILE *out, bool json, bool verbose = false) const;
    std::string Json() const;
    std::string Text(bool verbose = false) const;

  private:
    struct Field {
        std::string name;
        std::string json;
        std::string text;
        bool internal = false;
    };
    std::string type_;
    std::string title_;
    std::string note_;
    std::vector<Field> fields_;
};

/* Names of the values of one kind of field. The meanings of most codes
 * are the BP's: a value without a row prints as "BP code N". */
struct CodeName {
    int64_t value;
    const char *name;
};
struct CodeTable {
    const CodeName *rows;
    size_t count;
    const char *unknown; /* the words before the number of a value without a row */
    /* "success (0)" for a value with a row, "failed, BP code -2" otherwise. */
    std::string Text(int64_t value) const;
};
extern const CodeTable kResultCodes; /* result and status of answers */
extern const CodeTable kCauseCodes;  /* cause of fixes and notifications */
extern const CodeTable kMethodCodes; /* locationMethod */
extern const CodeTable kStatusCodes; /* the fields of the positioning status */

/* The shortest decimal text that encodes to the same BP fixed-point
 * number as value, which was decoded from one as (N + 0.5) / 2^23:
 * 0 sent by the BP prints as "0". Other values print with 17 digits. */
std::string FixedText(double value);

std::string JsonString(const std::string &s);
std::string HexBytes(const uint8_t *p, size_t n);

/* The record of a server message, fields named as in the protocol. */
Record MessageRecord(const lapi_msg &msg);
/* Prints the record of a server message. */
void PrintMessage(const lapi_msg &msg, bool json, bool verbose);

}  // namespace lapitool

#endif /* LAPI_TOOL_FORMAT_H */
