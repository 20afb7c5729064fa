// Binds and unbinds of many clients, made together: a change of the store costs mostly what is written once
// for all changes of one transaction (pages from the leaf to the root, the list of free pages; with Durable
// the wait for the disk). A client is answered after the transaction that holds its change.
#pragma once

#include <string>

#include "handler/HandlerInternal.h"
#include "handler/WmiExchange.h"

// A bind or unbind that was asked for.
struct BindingChange {
  int fd;            // -1: nobody waits for an answer
  int type;          // of the request
  std::string ip;    // as they came
  std::string user;  // empty for an unbind
  // Instead of an answer: goes on when the change was made. `fd` is then its agent's socket.
  wmi_auth_task* exchange = nullptr;
};

// Makes the change soon, answers it, and registers or closes its connection, if it has one: kHandedOver.
Outcome change_binding(BindingChange change);
