// The marshaller's interface ids, "ZunMarshaller1" to "ZunMarshaller6": one object class, whose
// table follows the version the id asks for.
#include "factory/factory.h"
#include "protocol/marshaller_object.h"

namespace {

using zun::kMarshallerInterfaces;

FACTORY_INTERFACE(marshaller1, kMarshallerInterfaces[0].id, kMarshallerInterfaces[0].create);
FACTORY_INTERFACE(marshaller2, kMarshallerInterfaces[1].id, kMarshallerInterfaces[1].create);
FACTORY_INTERFACE(marshaller3, kMarshallerInterfaces[2].id, kMarshallerInterfaces[2].create);
FACTORY_INTERFACE(marshaller4, kMarshallerInterfaces[3].id, kMarshallerInterfaces[3].create);
FACTORY_INTERFACE(marshaller5, kMarshallerInterfaces[4].id, kMarshallerInterfaces[4].create);
FACTORY_INTERFACE(marshaller6, kMarshallerInterfaces[5].id, kMarshallerInterfaces[5].create);

} // namespace
