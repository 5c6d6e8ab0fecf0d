// The legacy firmware family: CGI scripts answering XML under VDocRoot, session-id cookies.
// Form posts send the decoded query text as body (values unescaped, as the scripts expect);
// query GETs send the percent-encoded path and query.
#include "session/session.h"

#include "common/misc.h"
#include "common/trace.h"
#include "session/exchange.h"

#include <Poco/AutoPtr.h>
#include <Poco/URI.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Node.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>

namespace Orvex {

namespace {

using Poco::Net::HTTPRequest;
using session_detail::Cause;
using Document = Poco::AutoPtr<Poco::XML::Document>;

// The device's answers are a few levels deep; a document nested far deeper would exhaust
// the stack when its tree is destroyed, so it is refused before a tree is built.
constexpr int kMaxDepth = 256;

class DepthGuard : public Poco::XML::DefaultHandler {
public:
    void startElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&, const Poco::XML::XMLString&,
                      const Poco::XML::Attributes&) override
    {
        if (++depth_ > kMaxDepth)
            throw Poco::XML::SAXException("answer nested too deeply");
    }
    void endElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&, const Poco::XML::XMLString&) override
    {
        --depth_;
    }

private:
    int depth_ = 0;
};

constexpr const char* kLoginScript = "/cgi-bin/authLogin.cgi";
constexpr const char* kLogoutScript = "/cgi-bin/authLogout.cgi";
constexpr const char* kManagementScript = "/cgi-bin/management/manaRequest.cgi";

// Throws on text that is not XML (the callers turn that into a failed step).
Document parse(const std::string& reply)
{
    DepthGuard guard;
    Poco::XML::SAXParser scan;
    scan.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, true);
    scan.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACE_PREFIXES, true);
    scan.setContentHandler(&guard);
    scan.parseMemoryNP(reply.data(), reply.size());
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
        ORVEX_TRACE_TEXT("[Session] %s", redacted(reply).c_str());
        Document document = parse(reply);
        if (!document)
            return failStep(Cause::BadAnswer);
        Poco::XML::Node* node = find(document, "//VDocRoot//authSid");
        // The scripts answer a refused login with authPassed 0 and no id.
        if (node == nullptr)
            return failStep(find(document, "//VDocRoot//authPassed") ? Cause::Credentials : Cause::BadAnswer);
        std::string id = node->innerText();
        // The id goes into a Cookie header: a device may not smuggle header text into it.
        if (!session_detail::headerSafe(id))
            return failStep(Cause::BadAnswer);
        family = Nvx;
        sid = id;
    } catch (...) {
        // A device that does not serve the legacy scripts: the token family is tried next.
        return failStep(Cause::BadAnswer);
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
        ORVEX_TRACE_TEXT("[Session] %s", redacted(reply).c_str());
        Document document = parse(reply);
        if (!document)
            return failStep(Cause::BadAnswer);
        Poco::XML::Node* modelNode = find(document, "//VDocRoot//model//displayModelName");
        Poco::XML::Node* numberNode = find(document, "//VDocRoot//firmware//number");
        Poco::XML::Node* versionNode = find(document, "//VDocRoot//firmware//version");
        Poco::XML::Node* hostNode = find(document, "//VDocRoot//hostname");
        if (!modelNode || !numberNode || !versionNode || !hostNode)
            return failStep(Cause::BadAnswer);
        model = modelNode->innerText();
        firmware = versionNode->innerText() + "." + numberNode->innerText();
        hostname = hostNode->innerText();
        return true;
    } catch (...) {
        return failStep(Cause::BadAnswer);
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
        ORVEX_TRACE_TEXT("[Session] %s", redacted(reply).c_str());
        Document document = parse(reply);
        if (!document)
            return failStep(Cause::BadAnswer);
        if (Poco::XML::Node* node = find(document, "//VDocRoot//func//ownContent//root//serial_number"))
            serial = node->innerText();
        return true;
    } catch (...) {
        return failStep(Cause::BadAnswer);
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
        ORVEX_TRACE_TEXT("[Session] %s", redacted(reply).c_str());
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
    ORVEX_TRACE_TEXT("[Session] %s", redacted(reply).c_str());
    return true;
}

}  // namespace Orvex
