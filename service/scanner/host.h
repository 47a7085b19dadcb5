#pragma once

namespace keldra {

/// Does what keldrad orders over wire::CHANNEL: loads signatures, then starts and ends workers, until keldrad closes
/// it. Returns the process's exit status. A worker never returns from here.
int serveOrders();

}  // namespace keldra
