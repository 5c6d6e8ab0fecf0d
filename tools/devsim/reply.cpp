#include "tools/devsim/reply.h"

#include <vector>

namespace Orvex::Devsim {

Reply Reply::json(int status, json_t* adopted)
{
    Reply reply;
    reply.status = status;
    reply.kind = Json;
    reply.tree = JsonRef::adopt(adopted);
    return reply;
}

Reply Reply::xml(json_t* adopted)
{
    Reply reply;
    reply.kind = Xml;
    reply.tree = JsonRef::adopt(adopted);
    return reply;
}

Reply Reply::html404(const std::string& path)
{
    Reply reply;
    reply.status = 404;
    reply.kind = Text;
    reply.contentType = "text/html";
    std::string escaped;
    for (char c : path)
        escaped += (c == '<' || c == '>' || c == '&') ? '_' : c;
    reply.text = "<!DOCTYPE html>\n<html><head><title>404 Not Found</title></head><body>"
                 "<h1>Not Found</h1><p>The requested URL " + escaped +
                 " was not found on this server.</p></body></html>\n";
    return reply;
}

Reply Reply::error(int status, const std::string& message)
{
    return json(status, json_pack("{sbss}", "success", 0, "error", message.c_str()));
}

void omitKeys(json_t* value, const std::set<std::string>& names)
{
    if (json_is_array(value)) {
        size_t i;
        json_t* item;
        json_array_foreach(value, i, item) omitKeys(item, names);
        return;
    }
    if (!json_is_object(value))
        return;
    std::vector<std::string> doomed;
    const char* key;
    json_t* member;
    json_object_foreach(value, key, member) {
        if (names.count(key))
            doomed.emplace_back(key);
        else
            omitKeys(member, names);
    }
    for (const auto& name : doomed)
        json_object_del(value, name.c_str());
}

std::string renderJson(const json_t* value)
{
    char* text = json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY);
    std::string result = text ? text : "null";
    free(text);
    return result;
}

namespace {

void appendEscaped(std::string& out, const char* text)
{
    for (; *text; ++text) {
        switch (*text) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        case '"': out += "&quot;"; break;
        default: out += *text;
        }
    }
}

void appendElement(std::string& out, const char* name, const json_t* value);

void appendChildren(std::string& out, const json_t* object)
{
    const char* key;
    json_t* member;
    json_object_foreach(const_cast<json_t*>(object), key, member) appendElement(out, key, member);
}

void appendScalar(std::string& out, const json_t* value)
{
    if (json_is_string(value))
        appendEscaped(out, json_string_value(value));
    else if (json_is_integer(value))
        out += std::to_string(json_integer_value(value));
    else if (json_is_boolean(value))
        out += json_is_true(value) ? "1" : "0";
    else if (json_is_real(value))
        out += std::to_string(json_real_value(value));
}

void appendElement(std::string& out, const char* name, const json_t* value)
{
    if (json_is_array(value)) {
        size_t i;
        json_t* item;
        json_array_foreach(value, i, item) appendElement(out, name, item);
        return;
    }
    out += '<';
    out += name;
    out += '>';
    if (json_is_object(value))
        appendChildren(out, value);
    else
        appendScalar(out, value);
    out += "</";
    out += name;
    out += '>';
}

}  // namespace

std::string renderXml(const json_t* children)
{
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<VDocRoot>";
    if (json_is_object(children))
        appendChildren(out, children);
    out += "</VDocRoot>\n";
    return out;
}

}  // namespace Orvex::Devsim
