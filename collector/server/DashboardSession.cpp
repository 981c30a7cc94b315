#include "server/DashboardSession.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <cctype>
#include <optional>

#include "api/PageHandler.h"

namespace collector {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace {

constexpr size_t kHeaderLimit = 16 * 1024;
constexpr size_t kBodyLimit = 8 * 1024;  // a login form
constexpr auto kWriteTimeout = std::chrono::seconds(30);

using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

const char kLoginPage[] =
    "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>pathweave-collector</title>"
    "</head><body><form method=\"post\" action=\"/login\"><label>Dashboard token "
    "<input type=\"password\" name=\"token\" autocomplete=\"current-password\"></label> "
    "<button type=\"submit\">Sign in</button></form></body></html>\n";

// The value of `name` in an application/x-www-form-urlencoded body, decoded.
std::string FormField(const std::string& body, const std::string& name) {
    size_t at = 0;
    while (at <= body.size()) {
        size_t end = body.find('&', at);
        if (end == std::string::npos)
            end = body.size();
        const std::string pair = body.substr(at, end - at);
        const size_t equals = pair.find('=');
        if (equals != std::string::npos && pair.compare(0, equals, name) == 0 &&
            equals == name.size()) {
            std::string value;
            for (size_t i = equals + 1; i < pair.size(); ++i) {
                const char c = pair[i];
                if (c == '+') {
                    value += ' ';
                } else if (c == '%' && i + 2 < pair.size() &&
                           std::isxdigit(static_cast<unsigned char>(pair[i + 1])) &&
                           std::isxdigit(static_cast<unsigned char>(pair[i + 2]))) {
                    value += static_cast<char>(std::stoi(pair.substr(i + 1, 2), nullptr, 16));
                    i += 2;
                } else {
                    value += c;
                }
            }
            return value;
        }
        at = end + 1;
    }
    return std::string();
}

template <class Stream>
class DashboardSession : public Drainable,
                         public std::enable_shared_from_this<DashboardSession<Stream>> {
public:
    DashboardSession(tcp::socket socket, DashboardContext& context,
                     std::shared_ptr<asio::ssl::context> tls)
        : context_(context), tls_(std::move(tls)), stream_(MakeStream(std::move(socket))) {}

    ~DashboardSession() override {
        if (registryId_ != 0)
            context_.sessions.Remove(registryId_);
    }

    void Start() {
        registryId_ = context_.sessions.Add(this->shared_from_this());
        asio::dispatch(stream_.get_executor(), [self = this->shared_from_this()] {
            if constexpr (kSecure) {
                self->Socket().expires_after(
                    std::chrono::seconds(self->context_.settings.headerTimeoutSeconds));
                self->stream_.async_handshake(asio::ssl::stream_base::server,
                                              [self](beast::error_code error) {
                                                  if (error)
                                                      return self->Close();
                                                  self->Read();
                                              });
            } else {
                self->Read();
            }
        });
    }

    void Drain() override {
        asio::post(stream_.get_executor(), [self = this->shared_from_this()] {
            if (self->idle_)
                self->Socket().cancel();
        });
    }

private:
    static constexpr bool kSecure = std::is_same_v<Stream, beast::ssl_stream<beast::tcp_stream>>;

    Stream MakeStream(tcp::socket socket) {
        if constexpr (kSecure) {
            return Stream(std::move(socket), *tls_);
        } else {
            return Stream(std::move(socket));
        }
    }

    beast::tcp_stream& Socket() { return beast::get_lowest_layer(stream_); }

    void Read() {
        if (context_.draining)
            return Close();
        idle_ = true;
        Socket().expires_after(std::chrono::seconds(context_.settings.idleTimeoutSeconds));
        parser_.emplace();
        parser_->header_limit(kHeaderLimit);
        parser_->body_limit(kBodyLimit);
        http::async_read(
            stream_, buffer_, *parser_,
            [self = this->shared_from_this()](beast::error_code error, size_t) {
                self->idle_ = false;
                if (error == http::error::body_limit || error == http::error::header_limit) {
                    return self->Plain(413, "request too large\n", true);
                }
                if (error == http::error::bad_target || error == http::error::bad_method ||
                    error == http::error::bad_version || error == http::error::bad_field) {
                    return self->Plain(400, "bad request\n", true);
                }
                if (error)
                    return self->Close();
                self->Route(self->parser_->release());
            });
    }

    void Route(Request request) {
        const std::string target(request.target());
        const std::string path = target.substr(0, target.find('?'));
        const bool get = request.method() == http::verb::get;
        keepAlive_ = request.keep_alive();
        if (path == "/login") {
            if (get)
                return Send(Page(200, kLoginPage));
            if (request.method() != http::verb::post)
                return Plain(405, "method not allowed\n", false);
            if (!context_.access.IsToken(FormField(request.body(), "token"))) {
                return Plain(401, "wrong token\n", false);
            }
            Response response = Redirect("/");
            response.set(http::field::set_cookie, Cookie(context_.access.CookieValue(), ""));
            return Send(std::move(response));
        }
        if (path == "/logout") {
            Response response = Redirect("/login");
            response.set(http::field::set_cookie, Cookie("", "; Max-Age=0"));
            return Send(std::move(response));
        }
        const bool allowed =
            context_.access.Allows(std::string(request[http::field::authorization]),
                                   std::string(request[http::field::cookie]));
        const bool machine = path == "/metrics" || path.compare(0, 5, "/api/") == 0;
        if (!allowed) {
            if (!machine)
                return Send(Redirect("/login"));
            Response response =
                Make(401, "text/plain; charset=utf-8", "dashboard token required\n");
            response.set(http::field::www_authenticate, "Bearer");
            return Send(std::move(response));
        }
        if (path == "/metrics") {
            if (!get)
                return Plain(405, "method not allowed\n", false);
            return Send(
                Make(200, "text/plain; version=0.0.4; charset=utf-8", context_.metrics.Render()));
        }
        if (path.compare(0, 5, "/api/") == 0) {
            ApiRequest api;
            api.method = std::string(request.method_string());
            api.target = target;
            context_.api.Run(std::move(api), [self = this->shared_from_this(),
                                              work = asio::make_work_guard(stream_.get_executor())](
                                                 ApiAnswer answer) {
                asio::post(
                    self->stream_.get_executor(), [self, answer = std::move(answer)]() mutable {
                        Response response =
                            self->Make(answer.status, answer.contentType, std::move(answer.body));
                        for (auto& header : answer.headers)
                            response.set(header.first, header.second);
                        self->Send(std::move(response));
                    });
            });
            return;
        }
        // Everything else is the dashboard's pages, styles and scripts (small files).
        static const PageRoots kPageRoots = DefaultPageRoots();
        ApiAnswer page =
            HandlePageRequest({std::string(request.method_string()), target}, kPageRoots);
        Response response = Make(page.status, page.contentType, std::move(page.body));
        for (auto& header : page.headers)
            response.set(header.first, header.second);
        Send(std::move(response));
    }

    std::string Cookie(const std::string& value, const std::string& extra) const {
        return std::string(DashboardAccess::kCookieName) + "=" + value +
               "; Path=/; HttpOnly; SameSite=Strict" + (kSecure ? "; Secure" : "") + extra;
    }

    Response Make(unsigned int status, const std::string& type, std::string body) const {
        Response response(static_cast<http::status>(status), 11);
        response.set(http::field::server, "pathweave-collector");
        response.set(http::field::content_type, type);
        response.set(http::field::cache_control, "no-store");
        response.set("X-Content-Type-Options", "nosniff");
        response.body() = std::move(body);
        return response;
    }
    Response Page(unsigned int status, const char* html) const {
        Response response = Make(status, "text/html; charset=utf-8", html);
        response.set("Content-Security-Policy", "default-src 'none'; form-action 'self'");
        response.set("X-Frame-Options", "DENY");
        return response;
    }
    Response Redirect(const char* location) const {
        Response response = Make(303, "text/plain; charset=utf-8", "");
        response.set(http::field::location, location);
        return response;
    }
    void Plain(unsigned int status, const char* text, bool close) {
        if (close)
            keepAlive_ = false;
        Send(Make(status, "text/plain; charset=utf-8", text));
    }

    void Send(Response response) {
        response_ = std::move(response);
        response_.keep_alive(keepAlive_ && !context_.draining);
        response_.prepare_payload();
        Socket().expires_after(kWriteTimeout);
        http::async_write(stream_, response_,
                          [self = this->shared_from_this()](beast::error_code error, size_t) {
                              if (error || !self->response_.keep_alive())
                                  return self->Close();
                              self->Read();
                          });
    }

    void Close() {
        if (closing_)
            return;
        closing_ = true;
        if constexpr (kSecure) {
            Socket().expires_after(std::chrono::seconds(2));
            stream_.async_shutdown(
                [self = this->shared_from_this()](beast::error_code) { self->Socket().close(); });
        } else {
            beast::error_code ignored;
            Socket().socket().shutdown(tcp::socket::shutdown_both, ignored);
            Socket().close();
        }
    }

    DashboardContext& context_;
    std::shared_ptr<asio::ssl::context> tls_;
    Stream stream_;
    uint64_t registryId_ = 0;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    Response response_;
    bool keepAlive_ = true;
    bool idle_ = false;
    bool closing_ = false;
};

}  // namespace

void StartDashboardSession(tcp::socket socket, DashboardContext& context) {
    if (context.tls != nullptr) {
        std::make_shared<DashboardSession<beast::ssl_stream<beast::tcp_stream>>>(
            std::move(socket), context, context.tls->Current())
            ->Start();
    } else {
        std::make_shared<DashboardSession<beast::tcp_stream>>(std::move(socket), context, nullptr)
            ->Start();
    }
}

}  // namespace collector
