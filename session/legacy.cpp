// The legacy firmware family: CGI scripts answering XML under VDocRoot, session-id cookies.
// Form posts send the decoded query text as body (values unescaped, as the scripts expect);
// query GETs send the percent-encoded path and query.
#include "session/session.h"

#include "common/misc.h"
#include "common/trace.h"

#include <Poco/AutoPtr.h>
#include <Poco/URI.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Node.h>
#include <Poco/Net/HTTPRequest.h>

namespace Orvex {

namespace {

using Poco::Net::HTTPRequest;
using Document = Poco::AutoPtr<Poco::XML::Document>;

constexpr const char* kLoginScript = "/cgi-bin/authLogin.cgi";
constexpr const char* kLogoutScript = "/cgi-bin/authLogout.cgi";
constexpr const char* kManagementScript = "/cgi-bin/management/manaRequest.cgi";

// Throws on text that is not XML (the callers turn that into a failed step).
Document parse(const std::string& reply)
{
    Poco::XML::DOMParser parser;
    return parser.parseString(reply);
}

Poco::XML::Node* find(const Document& document, const char* path)
{
    return document->getNodeByPath(path);
}

}  // namespace

bool Session::_nvx_signin()
{
    ORVEX_TRACE();
    try {
        Poco::URI uri(kLoginScript);
        uri.addQueryParameter("user", user);
        uri.addQueryParameter("pwd", btoa(password));
        std::string reply = request(HTTPRequest::HTTP_POST, uri.getPath(), uri.getQuery(), false);
        ORVEX_TRACE_TEXT("[Session] %s", reply.c_str());
        Document document = parse(reply);
        if (!document)
            return false;
        Poco::XML::Node* node = find(document, "//VDocRoot//authSid");
        if (node == nullptr)
            return false;
        family = Nvx;
        sid = node->innerText();
    } catch (...) {
        // A device that does not serve the legacy scripts: the token family is tried next.
        return false;
    }
    if (!_nvx_getSystemInfo())
        return false;
    return _nvx_getDeviceSerial();
}

bool Session::_nvx_getSystemInfo()
{
    ORVEX_TRACE();
    try {
        Poco::URI uri(kLoginScript);
        uri.addQueryParameter("sid", sid);
        std::string reply = request(HTTPRequest::HTTP_GET, uri.getPathAndQuery());
        ORVEX_TRACE_TEXT("[Session] %s", reply.c_str());
        Document document = parse(reply);
        if (!document)
            return false;
        Poco::XML::Node* modelNode = find(document, "//VDocRoot//model//displayModelName");
        Poco::XML::Node* numberNode = find(document, "//VDocRoot//firmware//number");
        Poco::XML::Node* versionNode = find(document, "//VDocRoot//firmware//version");
        Poco::XML::Node* hostNode = find(document, "//VDocRoot//hostname");
        if (!modelNode || !numberNode || !versionNode || !hostNode)
            return false;
        model = modelNode->innerText();
        firmware = versionNode->innerText() + "." + numberNode->innerText();
        hostname = hostNode->innerText();
        return true;
    } catch (...) {
        return false;
    }
}

bool Session::_nvx_getDeviceSerial()
{
    ORVEX_TRACE();
    try {
        Poco::URI uri(kManagementScript);
        uri.addQueryParameter("sid", sid);
        uri.addQueryParameter("subfunc", "sysinfo");
        std::string reply = request(HTTPRequest::HTTP_GET, uri.getPathAndQuery());
        ORVEX_TRACE_TEXT("[Session] %s", reply.c_str());
        Document document = parse(reply);
        if (!document)
            return false;
        if (Poco::XML::Node* node = find(document, "//VDocRoot//func//ownContent//root//serial_number"))
            serial = node->innerText();
        return true;
    } catch (...) {
        return false;
    }
}

bool Session::_nvx_alive()
{
    ORVEX_TRACE();
    if (family != Nvx)
        return false;
    try {
        Poco::URI uri(kLoginScript);
        uri.addQueryParameter("sid", sid);
        std::string reply = request(HTTPRequest::HTTP_POST, uri.getPath(), uri.getQuery(), false);
        ORVEX_TRACE_TEXT("[Session] %s", reply.c_str());
        Document document = parse(reply);
        if (!document)
            return false;
        Poco::XML::Node* node = find(document, "//VDocRoot//authPassed");
        return node != nullptr && node->innerText() == "1";
    } catch (...) {
        return false;
    }
}

// Clears nothing: the next keep-alive tick asks the device whether the id still holds.
bool Session::_nvx_signout()
{
    ORVEX_TRACE();
    Poco::URI uri(kLogoutScript);
    uri.addQueryParameter("sid", sid);
    uri.addQueryParameter("logout", "1");
    std::string reply = request(HTTPRequest::HTTP_POST, uri.getPath(), uri.getQuery(), false);
    ORVEX_TRACE_TEXT("[Session] %s", reply.c_str());
    return true;
}

}  // namespace Orvex
