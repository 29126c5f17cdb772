// The gNMI service over gRPC's callback interface. Requests arrive on
// gRPC's threads and are handed to the engine's loop (Inbox); answers go
// back from there. Capabilities and Set need no model and are answered at
// once; Set is refused: the configuration agent's file is the
// configuration.
//
// Each Subscribe stream has a bounded outbox: frames wait there, shared
// with other clients, until gRPC has sent the one before. A client that
// stops reading lets its outbox fill; past `queueBytes` the outbox is
// emptied and the stream ended with RESOURCE_EXHAUSTED, which the client
// reads when it reads again. A stalled collector thus costs at most its
// bound, and then only the one response gRPC was sending.
#pragma once

#include "Engine.h"
#include "Inbox.h"

#include "gnmi.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <memory>

namespace Gnmi {

// Subscribe takes and gives bytes, so that frames go out as encoded.
using ServiceBase = gnmi::gNMI::WithCallbackMethod_Capabilities<gnmi::gNMI::WithCallbackMethod_Get<
    gnmi::gNMI::WithCallbackMethod_Set<gnmi::gNMI::WithRawCallbackMethod_Subscribe<gnmi::gNMI::Service>>>>;

class Service final : public ServiceBase {
 public:
   struct Options {
      size_t queueBytes = 16u << 20;
   };
   Service(Inbox & inbox, Engine & engine, Options options);
   ~Service() override;

   grpc::ServerUnaryReactor * Capabilities(grpc::CallbackServerContext * ctx, gnmi::CapabilityRequest const * req,
                                           gnmi::CapabilityResponse * resp) override;
   grpc::ServerUnaryReactor * Get(grpc::CallbackServerContext * ctx, gnmi::GetRequest const * req,
                                  gnmi::GetResponse * resp) override;
   grpc::ServerUnaryReactor * Set(grpc::CallbackServerContext * ctx, gnmi::SetRequest const * req,
                                  gnmi::SetResponse * resp) override;
   grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer> * Subscribe(grpc::CallbackServerContext * ctx) override;


   class Stream;
   class Outbox;

 private:
   friend class Stream;
   Inbox & inbox_;
   Engine & engine_;
   Options options_;
   std::atomic<uint64_t> nextId_{1};
};

grpc::Status toGrpc(Status const & s);

} // namespace Gnmi
