// Any entity as JSON, read through its type descriptor alone.
#pragma once

#include <Vel/GenericIf.h>

#include <nlohmann/json.hpp>

// The entity of a handle with all its attributes, collections as objects by key, and with whatever
// entities can be reached from it; a plain value as itself. Each entity is shown once, with a
// number as its "$id", and is {"$ref": number} wherever it comes up again. A text that is not
// UTF-8 is shown by its string representation.
nlohmann::ordered_json entityJson(const Vel::GenericIf& handle);
