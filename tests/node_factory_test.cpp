#include <gtest/gtest.h>

#include "core/io/io.hpp"
#include "core/node_factory.hpp"
#include "core/root.hpp"

namespace A {
struct B {};
}  // namespace A
struct LynxApp {};
template <unsigned N, class App>
struct LynxDAC {};

// A node class of the tests' own, registered like any other.
class ProbeNode : public Node {
 public:
  explicit ProbeNode(const VTree& config) : Node(config), gain(add_setting<ValueField<double>>(config, "gain")) {}
  ValueField<double>& gain;
};
ZEL_REGISTER_NODE("probe_node", ProbeNode);

TEST(TypeName, TemplatesNamespacesAndTheCvrSaverWrapperGiveDistinctDashedNames) {
  EXPECT_EQ(factory_type_name(typeid(IO<double>)), "IO-double");
  EXPECT_EQ(factory_type_name(typeid(IO<bool>)), "IO-bool");
  EXPECT_EQ(factory_type_name(typeid(IOBase)), "IOBase");
  EXPECT_EQ(factory_type_name(typeid(A::B)), "A--B");
  EXPECT_EQ(factory_type_name(typeid(LynxDAC<8u, LynxApp>)), "LynxDAC-8u-LynxApp");
  EXPECT_EQ(factory_type_name(std::string("boost::typeindex::detail::cvr_saver< IO<double> >")), "IO-double");
  // Short names are left alone even when they hold the wrapper's text.
  EXPECT_EQ(factory_type_name(std::string("X<int, long>")), "X-int-long");
}

TEST(NodeFactory, CreatesByTypeNameAndByAliasAndReportsTheTypeName) {
  VTree config("probe");
  config.set("gain", "2.5");
  for (const char* key : {"ProbeNode", "probe_node"}) {
    auto node = NodeFactory::create(key, config);
    ASSERT_NE(node, nullptr) << key;
    EXPECT_EQ(node->type(), "ProbeNode");
    EXPECT_EQ(static_cast<ProbeNode&>(*node).gain.get(), 2.5);
  }
  auto analog = NodeFactory::create("analog_io", VTree("a"));
  ASSERT_NE(analog, nullptr);
  EXPECT_EQ(analog->type(), "AnalogIO");
  EXPECT_TRUE(NodeFactory::known(analog->type()));
}

TEST(NodeFactory, EveryCoreAliasIsRegistered) {
  for (const char* alias : {"root", "node", "component", "io_server", "admin_manager", "upnp", "interlock_manager",
                            "io", "analog_io", "digital_io", "string_io"})
    EXPECT_TRUE(NodeFactory::known(alias)) << alias;
}
