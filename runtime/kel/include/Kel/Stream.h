// Replication of an entity subtree between processes over a byte stream
// (any file descriptor; Unix-domain stream sockets in practice).
//
// A Writer serves a subtree; a Reader mounts it by path. The reader first
// receives the whole current state, then every change. On the reader every
// update is applied through the entity's ordinary mutator, so its reactors
// fire as for local writes; creations replay through the type object.
// Replicas refuse local writes.
//
// The parts: the activity loop the connections run on (ActivityLoop.h),
// the messages (StreamMessages.h), what a connection may cost
// (ConnectionLimits.h), the serving end (StreamWriter.h) and the mounting
// end (StreamReader.h). Trace.h sets the level of the connections' trace
// facility, "Kel::NboAttrLog".
#pragma once

#include <Kel/ActivityLoop.h>
#include <Kel/ConnectionLimits.h>
#include <Kel/StreamMessages.h>
#include <Kel/StreamReader.h>
#include <Kel/StreamWriter.h>
#include <Kel/Trace.h>
