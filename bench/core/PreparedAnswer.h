#pragma once

#include "model/InstanceList.h"

/// The devices that an XML adapter of this program has read, whatever the document.
namespace prepared_answer {
inline model::InstanceList devices;
}
