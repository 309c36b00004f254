#pragma once
// The safety chain the write-path and attack tests are built on, laid out as
// examples/safety_chain.xml: in the component "chamber", the input "pressure"
// (1e-6, fine) is guarded by the range interlock "hv_permit/vacuum" (in error
// above 1e-4) under a permit command that drives the output "hv_enable".
#include <string>

// `siblings` stand before the chamber (servers, say), `vacuum_settings` are
// added to the interlock's, and `component` is the chamber's type.
inline std::string interlock_chain(const std::string& siblings = "", const std::string& vacuum_settings = "",
                                   const std::string& component = "component") {
  return "<root>" + siblings + R"(
  <chamber type=")" + component + R"(" label="Chamber">
    <pressure type="analog_io" value="1e-6"/>
    <hv_enable type="digital_io" value="false"/>
    <hv_permit type="permit_command_io" output="chamber/hv_enable">
      <vacuum type="range_interlock_io" input="chamber/pressure" upper_limit="1e-4" )" +
         vacuum_settings + R"(/>
    </hv_permit>
  </chamber>
</root>)";
}
