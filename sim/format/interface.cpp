#include "sim/format/interface.h"

#include "interfacexml.h"
#include "service/endpoint.h"

namespace {

const char SimXml[] = R"xml(<node><interface name="com.calyra.kep.Sim">
  <method name="SetProperty"><arg name="name" type="s"/><arg name="value" type="v"/></method>
  <method name="EmitSignal"><arg name="name" type="s"/><arg name="args" type="av"/></method>
  <method name="EmitSignals"><arg name="signals" type="a(sav)"/></method>
  <method name="FailReads"><arg name="name" type="s"/><arg name="error" type="s"/>
    <arg name="message" type="s"/></method>
  <method name="Calls"><arg name="calls" type="a(sssb)" direction="out"/></method>
  <method name="ClearCalls"/>
  <method name="Reset"/>
</interface></node>)xml";

} // namespace

// Each read once and kept for the life of the process.
GDBusInterfaceInfo *kepInterface()
{
    static GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(InterfaceXml, nullptr);
    return g_dbus_node_info_lookup_interface(node, kep::InterfaceName);
}

GDBusInterfaceInfo *simInterface()
{
    static GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(SimXml, nullptr);
    return g_dbus_node_info_lookup_interface(node, SimInterfaceName);
}
