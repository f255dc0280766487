#include "platform/nodes/InterfaceText.h"

namespace Services::Nodes {

const std::string_view kNodeInterfaceText =
    R"idl(# A node of the device tree: attributes that can be read, actions that can be executed.
interface com.kelvo.node

# One value of a request or of a reply; kind tells which payload is set.
# An action travels as a value with the action's name; its payload carries the parameters, a list its options.
type Value (
  name: ?string,
  kind: (none, integer, string, list),
  integer: ?int,
  text: ?string,
  children: ?[]Value
)

# Names of the attributes and actions, in index order, and the server behind the node.
method Describe() -> (node: string, server: string, attributes: []string, actions: []string)

# Reads one attribute. An unknown attribute, or a node whose object is gone, gives no values.
method Get(attribute: string) -> (values: []Value)

# Writes attributes.
method Set(values: []Value) -> (values: []Value)

# Executes actions, in order, each giving one value named after it.
method Execute(values: []Value) -> (values: []Value)

# With more: a first reply at once, without change; then one for each change of the node, with the server's argument (0). Changes are not merged.
method Watch() -> (change: ?int)

# The node was withdrawn while it was watched.
error Withdrawn()

# More requests are in progress than the service takes.
error Busy()
)idl";

const std::string_view kServiceInterfaceText =
    R"idl(# The Varlink Service Interface is provided by every varlink service. It
# describes the service and the interfaces it implements.
interface org.varlink.service

# Get a list of all the interfaces a service provides and information
# about the implementation.
method GetInfo() -> (
  vendor: string,
  product: string,
  version: string,
  url: string,
  interfaces: []string
)

# Get the description of an interface that is implemented by this service.
method GetInterfaceDescription(interface: string) -> (description: string)

# The requested interface was not found.
error InterfaceNotFound (interface: string)

# The requested method was not found
error MethodNotFound (method: string)

# The interface defines the requested method, but the service does not
# implement it.
error MethodNotImplemented (method: string)

# One of the passed parameters is invalid.
error InvalidParameter (parameter: string)

# Client is denied access
error PermissionDenied ()

# Method is expected to be called with 'more' set to true, but wasn't
error ExpectedMore ()
)idl";

}  // namespace Services::Nodes
