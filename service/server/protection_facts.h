#pragma once

#include "service/verdict/protection.h"

namespace keldra {

class Service;

/// The verdict on this server at this moment. Answers from memory; what disks tell is at most some seconds old.
Protection protectionOf(Service& service);

}  // namespace keldra
