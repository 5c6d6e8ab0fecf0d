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
using session_detail::withQuery;
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

// Throws on text that is not XML or yields no document (the callers turn that into a failed step).
Document parse(const std::string& reply)
{
    DepthGuard guard;
    Poco::XML::SAXParser scan;
    scan.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, true);
    scan.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACE_PREFIXES, true);
    scan.setContentHandler(&guard);
    scan.parseMemoryNP(reply.data(), reply.size());
    Poco::XML::DOMParser parser;
    Document document = parser.parseString(reply);
    if (!document)
        throw Poco::XML::SAXException("no document");
    return document;
}

Poco::XML::Node* find(const Document& document, const char* path)
{
    return document->getNodeByPath(path);
}

}  // namespace

bool Session::_nvx_signin()
{
    ORVEX_TRACE();
    // A device that does not serve the legacy scripts fails here: the token family is tried next.
    bool signedIn = checkedStep(Cause::BadAnswer, [&, step = __PRETTY_FUNCTION__] {
        Poco::URI uri = withQuery(kLoginScript, {{"user", user}, {"pwd", btoa(password)}});
        Document document = parse(answer(step, HTTPRequest::HTTP_POST, uri.getPath(), uri.getQuery()));
        Poco::XML::Node* node = find(document, "//VDocRoot//authSid");
        // The scripts answer a refused login with authPassed 0 and no id.
        if (node == nullptr)
            return failStep(find(document, "//VDocRoot//authPassed") ? Cause::Credentials : Cause::BadAnswer);
        std::string id = node->innerText();
        // The id goes into a Cookie header: a device may not smuggle header text into it.
        if (!session_detail::headerSafe(id))
            return failStep(Cause::BadAnswer);
        family = Nvx;
        sid = std::move(id);
        return true;
    });
    return signedIn && _nvx_getSystemInfo() && _nvx_getDeviceSerial();
}

bool Session::_nvx_getSystemInfo()
{
    ORVEX_TRACE();
    return checkedStep(Cause::BadAnswer, [&, step = __PRETTY_FUNCTION__] {
        std::string target = withQuery(kLoginScript, {{"sid", sid}}).getPathAndQuery();
        Document document = parse(answer(step, HTTPRequest::HTTP_GET, target));
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
    });
}

bool Session::_nvx_getDeviceSerial()
{
    ORVEX_TRACE();
    return checkedStep(Cause::BadAnswer, [&, step = __PRETTY_FUNCTION__] {
        std::string target = withQuery(kManagementScript, {{"sid", sid}, {"subfunc", "sysinfo"}}).getPathAndQuery();
        Document document = parse(answer(step, HTTPRequest::HTTP_GET, target));
        if (Poco::XML::Node* node = find(document, "//VDocRoot//func//ownContent//root//serial_number"))
            serial = node->innerText();
        return true;
    });
}

bool Session::_nvx_alive()
{
    ORVEX_TRACE();
    // A keep-alive probe has no sign-in cause to record: anything thrown only means not alive.
    return family == Nvx && checkedStep(Cause::None, [&, step = __PRETTY_FUNCTION__] {
        Poco::URI uri = withQuery(kLoginScript, {{"sid", sid}});
        Document document = parse(answer(step, HTTPRequest::HTTP_POST, uri.getPath(), uri.getQuery()));
        Poco::XML::Node* node = find(document, "//VDocRoot//authPassed");
        return node != nullptr && node->innerText() == "1";
    });
}

// Clears nothing: the next keep-alive tick asks the device whether the id still holds.
bool Session::_nvx_signout()
{
    ORVEX_TRACE();
    Poco::URI uri = withQuery(kLogoutScript, {{"sid", sid}, {"logout", "1"}});
    answer(__PRETTY_FUNCTION__, HTTPRequest::HTTP_POST, uri.getPath(), uri.getQuery());
    return true;
}

}  // namespace Orvex
