// One answer of the simulated device, built by the family handlers and rendered once by
// the request handler (which applies the --omit, --json-array and --garbage knobs).
#pragma once

#include <set>
#include <string>

#include "common/raii.h"

namespace Orvex::Devsim {

struct Reply {
    enum Kind { Json, Xml, Text };
    int status = 200;
    Kind kind = Json;
    JsonRef tree;              // Json: the document; Xml: the children of VDocRoot
    std::string text;          // Text: the body as is
    std::string contentType;   // Text only

    static Reply json(int status, json_t* adopted);
    static Reply xml(json_t* adopted);
    static Reply html404(const std::string& path);
    // {"success":false,"error":message}
    static Reply error(int status, const std::string& message);
};

// Deletes every object member named in `names`, at any depth.
void omitKeys(json_t* value, const std::set<std::string>& names);

// Compact JSON text of `value`.
std::string renderJson(const json_t* value);

// <?xml ...?><VDocRoot>...</VDocRoot>: objects become nested elements, arrays repeat their
// element, strings are escaped text, booleans 1/0.
std::string renderXml(const json_t* children);

}  // namespace Orvex::Devsim
