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
    Record &Bool(const char *name, bool value);
    /* A JSON fragment for JSON and its readable rendering. */
    Record &Raw(const char *name, const std::string &json, const std::string &text);
    /* Readable output only: shown after the title, not as a field. */
    Record &Note(const std::string &text);
    void Print(FILE *out, bool json) const;
    std::string Json() const;
    std::string Text() const;

  private:
    struct Field {
        std::string name;
        std::string json;
        std::string text;
    };
    std::string type_;
    std::string title_;
    std::string note_;
    std::vector<Field> fields_;
};

std::string JsonString(const std::string &s);
std::string HexBytes(const uint8_t *p, size_t n);

/* The record of a server message, fields named as in the protocol. */
Record MessageRecord(const lapi_msg &msg);

}  // namespace lapitool

#endif /* LAPI_TOOL_FORMAT_H */
