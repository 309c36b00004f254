#include "core/ctx_comp.hpp"

ZEL_REGISTER_NODE("ctx_comp", CtxComp);
ZEL_REGISTER_NODE("service", Service);

CtxComp::CtxComp(const VTree& config) : Component(config), Context(config.name()) {}

CtxComp::~CtxComp() { stop_context(); }

void CtxComp::start() {
  start_context();
  Component::start();
}

void CtxComp::stop(StopStage stage) {
  Component::stop(stage);
  if (stage == StopStage::Stop1) stop_context();
}

Service::Service(const VTree& config) : CtxComp(config) {}
