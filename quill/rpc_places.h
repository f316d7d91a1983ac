// How many clients a server of the local RPC serves at once, and how its places are shared between users.
#pragma once

#include <cstddef>

namespace lumo {

// Numbers of clients served at the same time, each with a thread of its own.
struct RpcPlaces {
  std::size_t all;      // of every user together
  std::size_t others;   // of all users but root together: what is left of `all` is root's own
  std::size_t perUser;  // of one user that is not root
};

// The places for a server with `maxClients` of them; a number below 1 counts as 1.
// A quarter of the places, at least one, is root's own, and one other user gets as many, so that no user's idle
// connections keep out root or all other users. With the default of 20: 5 for root alone, 15 for others, 5 for each
// of them. A server that serves other users than root has at least two places, one for either.
// With `rootOnly` no place is kept back: all are root's.
RpcPlaces rpcPlaces(int maxClients, bool rootOnly);

}  // namespace lumo
