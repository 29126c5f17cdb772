// The gNMI service; see Service.h.
#include "Service.h"

#include "GnmidLog.h"

#include <deque>

namespace Gnmi {

grpc::Status toGrpc(Status const & s) { return grpc::Status(grpc::StatusCode(int(s.code)), s.message); }

// The frames waiting for one client, and the writing of them.
class Service::Outbox : public Sink {
 public:
   Outbox(size_t limit, std::string peer) : limit_(limit), peer_(std::move(peer)) {}

   bool push(Frame const & f) override {
      std::unique_lock<std::mutex> lock(mu_);
      if (!stream_ || finishing_) return false;
      if (bytes_ + f->size() > limit_) {
         size_t held = bytes_;
         q_.clear();
         bytes_ = 0;
         Kel::logEvent(clientTooSlowMessage(), peer_, std::to_string(held));
         finishLocked(lock, {Code::resourceExhausted, "the client did not read: " + std::to_string(held) +
                                                          " bytes waited for it, the most one client may hold"},
                      true);
         return false;
      }
      q_.push_back(f);
      bytes_ += f->size();
      if (!writing_) next(lock);
      return true;
   }
   void finish(Status const & s) override {
      std::unique_lock<std::mutex> lock(mu_);
      finishLocked(lock, s, false);
   }
   // The client went away: nothing more is sent.
   void cancel() {
      std::unique_lock<std::mutex> lock(mu_);
      q_.clear();
      bytes_ = 0;
      finishLocked(lock, {Code::ok, ""}, true, grpc::Status::CANCELLED);
   }
   void attach(Stream * s) {
      std::lock_guard<std::mutex> lock(mu_);
      stream_ = s;
   }
   void detach() {
      std::lock_guard<std::mutex> lock(mu_);
      stream_ = nullptr;
      q_.clear();
   }
   void writeDone(bool ok);

 private:
   void next(std::unique_lock<std::mutex> & lock);
   void finishLocked(std::unique_lock<std::mutex> & lock, Status const & s, bool now,
                     std::optional<grpc::Status> raw = std::nullopt);
   void finishNow(std::unique_lock<std::mutex> & lock);

   std::mutex mu_;
   size_t const limit_;
   std::string const peer_;
   Stream * stream_ = nullptr;
   std::deque<Frame> q_;
   size_t bytes_ = 0;
   bool writing_ = false;
   bool finishing_ = false;  // no more frames: finish once the queue is out
   bool finished_ = false;   // Finish called
   grpc::Status status_;
   grpc::ByteBuffer current_;
};

class Service::Stream : public grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer> {
 public:
   Stream(Service & service, grpc::CallbackServerContext * ctx)
         : service_(service), ctx_(ctx), id_(service.nextId_++),
           outbox_(std::make_shared<Outbox>(service.options_.queueBytes, ctx->peer())) {
      outbox_->attach(this);
      StartRead(&in_);
   }
   void OnReadDone(bool ok) override {
      if (!ok) return;  // the client closed its side: the subscription goes on
      gnmi::SubscribeRequest req;
      std::vector<grpc::Slice> slices;
      std::string bytes;
      if (in_.Dump(&slices).ok()) {
         for (auto const & s : slices) bytes.append(reinterpret_cast<char const *>(s.begin()), s.size());
      }
      if (!req.ParseFromString(bytes)) return end({Code::invalidArgument, "not a SubscribeRequest"});
      bool first = !subscribed_;
      if (req.has_subscribe() && first) {
         subscribed_ = true;
         auto outbox = outbox_;
         service_.inbox_.post([outbox, id = id_, list = req.subscribe(), &engine = service_.engine_] {
            Status s = engine.subscribe(id, outbox, list);
            if (!s.ok()) outbox->finish(s);
         });
      } else if (req.has_poll() && !first) {
         auto outbox = outbox_;
         service_.inbox_.post([outbox, id = id_, &engine = service_.engine_] {
            Status s = engine.poll(id);
            if (!s.ok()) outbox->finish(s);
         });
      } else if (first) {
         return end({Code::invalidArgument, "the first request of a Subscribe must be a subscription list"});
      } else {
         return end({Code::invalidArgument, req.has_subscribe() ? "the stream already has a subscription list"
                                                                 : "a request with neither subscription nor poll"});
      }
      StartRead(&in_);
   }
   void OnWriteDone(bool ok) override { outbox_->writeDone(ok); }
   void OnCancel() override { outbox_->cancel(); }
   void OnDone() override {
      outbox_->detach();
      service_.inbox_.post([id = id_, &engine = service_.engine_] { engine.unsubscribe(id); });
      delete this;
   }
   grpc::CallbackServerContext * context() const { return ctx_; }

 private:
   void end(Status const & s) {
      auto outbox = outbox_;
      service_.inbox_.post([outbox, s, id = id_, &engine = service_.engine_] {
         engine.unsubscribe(id);
         outbox->finish(s);
      });
   }
   Service & service_;
   grpc::CallbackServerContext * ctx_;
   uint64_t const id_;
   std::shared_ptr<Outbox> outbox_;
   grpc::ByteBuffer in_;
   bool subscribed_ = false;
};

void Service::Outbox::next(std::unique_lock<std::mutex> & lock) {
   Frame f = std::move(q_.front());
   q_.pop_front();
   bytes_ -= f->size();
   writing_ = true;
   // The frame's bytes go out as they are, held by the slice until sent.
   auto * hold = new Frame(f);
   grpc::Slice slice(const_cast<char *>((*hold)->data()), (*hold)->size(),
                     [](void * p) { delete static_cast<Frame *>(p); }, hold);
   current_ = grpc::ByteBuffer(&slice, 1);
   Stream * s = stream_;
   lock.unlock();
   s->StartWrite(&current_);
}

void Service::Outbox::writeDone(bool ok) {
   std::unique_lock<std::mutex> lock(mu_);
   writing_ = false;
   if (!ok) {
      q_.clear();
      bytes_ = 0;
      finishing_ = true;
      status_ = grpc::Status::CANCELLED;
   }
   if (finished_) return;
   if (!q_.empty() && stream_) return next(lock);
   if (finishing_) finishNow(lock);
}

void Service::Outbox::finishLocked(std::unique_lock<std::mutex> & lock, Status const & s, bool now,
                                   std::optional<grpc::Status> raw) {
   if (finishing_ || !stream_) return;
   finishing_ = true;
   status_ = raw ? *raw : toGrpc(s);
   if (now || (!writing_ && q_.empty())) finishNow(lock);
}

void Service::Outbox::finishNow(std::unique_lock<std::mutex> & lock) {
   if (finished_ || !stream_) return;
   finished_ = true;
   Stream * s = stream_;
   grpc::Status st = status_;
   lock.unlock();
   s->Finish(st);
}

// ---- the service -----------------------------------------------------------------------

Service::Service(Inbox & inbox, Engine & engine, Options options)
      : inbox_(inbox), engine_(engine), options_(options) {}

Service::~Service() = default;

grpc::ServerUnaryReactor * Service::Capabilities(grpc::CallbackServerContext * ctx, gnmi::CapabilityRequest const *,
                                                 gnmi::CapabilityResponse * resp) {
   auto * m = resp->add_supported_models();
   m->set_name(moduleName);
   m->set_organization("OpenConfig working group");
   m->set_version(modelRevision);
   resp->add_supported_encodings(gnmi::JSON);
   resp->add_supported_encodings(gnmi::JSON_IETF);
   resp->add_supported_encodings(gnmi::PROTO);
   resp->set_gnmi_version(gnmiVersion);
   auto * r = ctx->DefaultReactor();
   r->Finish(grpc::Status::OK);
   return r;
}

grpc::ServerUnaryReactor * Service::Get(grpc::CallbackServerContext * ctx, gnmi::GetRequest const * req,
                                        gnmi::GetResponse * resp) {
   auto * r = ctx->DefaultReactor();
   inbox_.post([this, r, req, resp] {
      std::string bytes;
      Status s = engine_.get(*req, &bytes);
      if (s.ok() && !resp->ParseFromString(bytes)) s = {Code::unimplemented, "internal: a response did not encode"};
      r->Finish(toGrpc(s));
   });
   return r;
}

grpc::ServerUnaryReactor * Service::Set(grpc::CallbackServerContext * ctx, gnmi::SetRequest const *,
                                        gnmi::SetResponse *) {
   auto * r = ctx->DefaultReactor();
   r->Finish(grpc::Status(grpc::StatusCode::UNIMPLEMENTED,
                          "Set is not served: the configuration agent's file is the configuration (edit it; "
                          "intf-configd applies it)"));
   return r;
}

grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer> * Service::Subscribe(grpc::CallbackServerContext * ctx) {
   return new Stream(*this, ctx);
}

} // namespace Gnmi
