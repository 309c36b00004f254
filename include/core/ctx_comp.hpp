#pragma once
// CtxComp: a component that is also an execution context; the nodes beneath
// it do their work on its thread (named after the node). Its thread starts
// with the component and stops in the stop stage that stops all contexts.
#include "core/component.hpp"
#include "core/context.hpp"

class CtxComp : public Component, public Context {
 public:
  explicit CtxComp(const VTree& config);
  ~CtxComp() override;

  void start() override;
  void stop(StopStage stage) override;
};

// Service: a context component offering work to others (the root's "async").
class Service : public CtxComp {
 public:
  explicit Service(const VTree& config);
};
