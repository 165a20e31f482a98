#include "apps/exo-sim/sim_server.h"

#include <sys/stat.h>

#include <chrono>
#include <thread>

namespace exo_sim
{

namespace
{

double now_ms()
{
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The decoded name/value pairs of a request target's query, in request order.
std::vector<std::pair<std::string, std::string>> parse_query(const std::string& target)
{
  std::vector<std::pair<std::string, std::string>> out;
  auto q = target.find('?');
  std::string query = q == std::string::npos ? "" : target.substr(q + 1);
  size_t pos = 0;
  while (!query.empty() && pos <= query.size())
  {
    size_t amp = query.find('&', pos);
    std::string pair = query.substr(pos, amp == std::string::npos ? std::string::npos : amp - pos);
    if (!pair.empty())
    {
      size_t eq = pair.find('=');
      out.push_back(
        {url_decode(pair.substr(0, eq), true), eq == std::string::npos ? "" : url_decode(pair.substr(eq + 1), true)});
    }
    if (amp == std::string::npos)
      break;
    pos = amp + 1;
  }
  return out;
}

Graph_Mailbox_Request graph_mailbox_request(const httplib::Request& req)
{
  Graph_Mailbox_Request g;
  g.method = req.method;
  g.params = parse_query(req.target);
  g.authorization = req.get_header_value("Authorization");
  g.host = req.get_header_value("Host");
  g.client_request_id = req.get_header_value("client-request-id");
  g.body = req.body;
  return g;
}

bool file_exists(const std::string& path)
{
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

}  // namespace

Sim_Server::Sim_Server(const Sim_Options& options, std::FILE* log)
  : options_(options),
    store_(new Mailbox_Store(options.seed, options.profile, options.tenant)),
    tokens_(options.tenant, options.token_lifetime),
    faults_(options.faults),
    stats_(log)
{
  graph_.reset(new Graph_Service(*store_, tokens_));
  graph_mailbox_.reset(new Graph_Mailbox_Service(*store_, tokens_, faults_, stats_, options.import_session_lifetime));
  ews_.reset(new Ews_Service(*store_, tokens_, faults_, stats_));
  int threads = options.threads;
  server_.new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<size_t>(threads)); };
  // Without TCP_NODELAY a response written as header and body in two sends waits for the
  // client's delayed ACK (about 40 ms) on every request of a kept-alive connection.
  server_.set_tcp_nodelay(true);
  server_.set_keep_alive_max_count(static_cast<size_t>(options.keep_alive_max));
  server_.set_keep_alive_timeout(options.keep_alive_timeout);
  install_routes();
}

Sim_Server::~Sim_Server() { stop(); }

bool Sim_Server::load_state(std::string& error)
{
  if (options_.state_dir.empty() || !file_exists(options_.state_dir + "/state.json"))
    return true;
  if (!store_->load(options_.state_dir, error))
    return false;
  tokens_.set_tenant(store_->tenant());
  return true;
}

bool Sim_Server::save_state(std::string& error)
{
  if (options_.state_dir.empty())
  {
    error = "no state directory configured (--state-dir)";
    return false;
  }
  return store_->save(options_.state_dir, error);
}

int Sim_Server::bind()
{
  port_ = options_.port == 0 ? server_.bind_to_any_port(options_.listen.c_str())
                             : (server_.bind_to_port(options_.listen.c_str(), options_.port) ? options_.port : -1);
  if (port_ > 0)
  {
    std::string p = ":" + std::to_string(port_);
    tokens_.set_own_bases({"http://127.0.0.1" + p, "http://localhost" + p, "http://" + options_.listen + p});
  }
  return port_;
}

bool Sim_Server::run() { return server_.listen_after_bind(); }

void Sim_Server::stop() { server_.stop(); }

void Sim_Server::add_latency()
{
  int ms = faults_.settings().latency_ms;
  if (ms > 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

bool Sim_Server::graph_throttled(Sim_Reply& reply, const std::string& crid)
{
  Fault_Settings s = faults_.settings();
  bool is_429 = faults_.roll("graph_429", s.graph_429_rate);
  bool is_503 = !is_429 && faults_.roll("graph_503", s.graph_503_rate);
  if (!is_429 && !is_503)
    return false;
  stats_.count(is_429 ? "faults.graph_429" : "faults.graph_503");
  reply = is_429 ? Graph_Service::error(429, "TooManyRequests", "Too many requests.", crid)
                 : Graph_Service::error(503, "ServiceUnavailable", "Service unavailable.", crid);
  reply.headers.push_back({"Retry-After", std::to_string(s.retry_after)});
  return true;
}

void Sim_Server::send(const Sim_Reply& reply, httplib::Response& res, double started_ms)
{
  res.status = reply.status;
  for (const auto& h : reply.headers)
    res.headers.emplace(h.first, h.second);
  std::shared_ptr<const Export_Stream> stream = reply.stream;
  if (!stream && reply.drop)
  {
    auto text = std::make_shared<Export_Stream>();
    text->add_text(reply.body);
    stream = text;
  }
  uint64_t total = stream ? stream->size() : reply.body.size();
  // A dropped connection declares the full length, sends half, then fails the write.
  uint64_t end = reply.drop ? total / 2 : total;
  if (stream)
  {
    const size_t chunk = 256 * 1024;
    res.set_content_provider(static_cast<size_t>(total), reply.content_type,
                             [stream, end, chunk](size_t offset, size_t, httplib::DataSink& sink)
                             {
                               if (offset >= end)
                                 return false;
                               std::string piece;
                               stream->read(offset, static_cast<size_t>(std::min<uint64_t>(chunk, end - offset)),
                                            piece);
                               return sink.write(piece.data(), piece.size());
                             });
  }
  else
  {
    res.set_content(reply.body, reply.content_type.c_str());
  }
  stats_.record(reply, static_cast<size_t>(end), now_ms() - started_ms);
}

// The Graph mailbox import/export API and its import URLs. 429/503 faults are rolled first, as for
// /v1.0/users; the service spends the latency inside the mailbox's concurrency slot.
void Sim_Server::install_graph_mailbox_routes()
{
  server_.Get(R"(/v1\.0/users/([^/]+)/settings/exchange)",
              [this](const httplib::Request& req, httplib::Response& res)
              {
                double t0 = now_ms();
                add_latency();
                Graph_Mailbox_Request g = graph_mailbox_request(req);
                Sim_Reply r;
                if (!graph_throttled(r, g.client_request_id))
                  r = graph_mailbox_->exchange_settings(g, req.matches[1]);
                r.service = "graph";
                r.op = "exchangeSettings";
                send(r, res, t0);
              });
  auto mailboxes = [this](const httplib::Request& req, httplib::Response& res)
  {
    double t0 = now_ms();
    Graph_Mailbox_Request g = graph_mailbox_request(req);
    Sim_Reply r;
    if (!graph_throttled(r, g.client_request_id))
      r = graph_mailbox_->mailboxes(g, req.matches[1]);
    r.service = "graph";
    r.op = Graph_Mailbox_Service::operation(g.method, req.matches[1]);
    send(r, res, t0);
  };
  server_.Get(R"(/v1\.0/admin/exchange/mailboxes/(.*))", mailboxes);
  server_.Post(R"(/v1\.0/admin/exchange/mailboxes/(.*))", mailboxes);
  server_.Post(R"(/api/gv1\.0/Mailboxes\('([^']*)'\)/importItem)",
               [this](const httplib::Request& req, httplib::Response& res)
               {
                 double t0 = now_ms();
                 Graph_Mailbox_Request g = graph_mailbox_request(req);
                 Sim_Reply r;
                 if (!graph_throttled(r, g.client_request_id))
                   r = graph_mailbox_->import_item(g, req.matches[1]);
                 r.service = "graph";
                 r.op = "importItem";
                 send(r, res, t0);
               });
}

void Sim_Server::install_routes()
{
  server_.Post(R"(/([^/]+)/oauth2/v2\.0/token)",
               [this](const httplib::Request& req, httplib::Response& res)
               {
                 double t0 = now_ms();
                 add_latency();
                 Sim_Reply r = tokens_.issue(req.matches[1], req.body, req.get_header_value("Authorization"));
                 r.service = "token";
                 r.op = "token";
                 if (r.status == 200)
                   stats_.count("tokens_issued");
                 send(r, res, t0);
               });
  server_.Get("/v1.0/users",
              [this](const httplib::Request& req, httplib::Response& res)
              {
                double t0 = now_ms();
                add_latency();
                Graph_Request g;
                g.params = parse_query(req.target);
                g.authorization = req.get_header_value("Authorization");
                g.consistency_level = req.get_header_value("ConsistencyLevel");
                g.host = req.get_header_value("Host");
                g.client_request_id = req.get_header_value("client-request-id");
                Sim_Reply r;
                if (!graph_throttled(r, g.client_request_id))
                  r = graph_->list_users(g);
                r.service = "graph";
                r.op = "users";
                send(r, res, t0);
              });
  install_graph_mailbox_routes();
  auto ews = [this](const httplib::Request& req, httplib::Response& res)
  {
    double t0 = now_ms();  // EWS spends its latency inside the mailbox's concurrency slot
    Ews_Request e{req.get_header_value("Authorization"), req.get_header_value("X-AnchorMailbox"), req.body};
    Sim_Reply r = ews_->handle(e);
    r.service = "ews";
    if (r.op.empty())
      r.op = "ews";
    send(r, res, t0);
  };
  server_.Post("/EWS/Exchange.asmx", ews);
  server_.Post("/ews/exchange.asmx", ews);

  server_.Get("/_sim/status",
              [this](const httplib::Request&, httplib::Response& res)
              {
                nlohmann::ordered_json j = stats_.to_json();
                j["mailboxes"] = store_->mailbox_count();
                j["seed"] = store_->seed();
                j["profile"] = store_->profile().name;
                res.set_content(j.dump(2) + "\n", "application/json");
              });
  server_.Post("/_sim/reset",
               [this](const httplib::Request&, httplib::Response& res)
               {
                 stats_.reset();
                 res.set_content("{}\n", "application/json");
               });
  server_.Get("/_sim/faults", [this](const httplib::Request&, httplib::Response& res)
              { res.set_content(fault_settings_to_json(faults_.settings()).dump(2) + "\n", "application/json"); });
  server_.Post("/_sim/faults",
               [this](const httplib::Request& req, httplib::Response& res)
               {
                 auto j = nlohmann::ordered_json::parse(req.body, nullptr, false);
                 Fault_Settings s = faults_.settings();
                 std::string error;
                 if (j.is_discarded() || !fault_settings_from_json(j, s, error))
                 {
                   res.status = 400;
                   res.set_content(
                     nlohmann::ordered_json{{"error", j.is_discarded() ? "body is not JSON" : error}}.dump() + "\n",
                     "application/json");
                   return;
                 }
                 faults_.set_settings(s);
                 res.set_content(fault_settings_to_json(s).dump(2) + "\n", "application/json");
               });
  server_.Post(
    "/_sim/save",
    [this](const httplib::Request&, httplib::Response& res)
    {
      std::string error;
      bool ok = save_state(error);
      res.status = ok ? 200 : 400;
      res.set_content(ok ? "{}\n" : nlohmann::ordered_json{{"error", error}}.dump() + "\n", "application/json");
    });
}

}  // namespace exo_sim
