#include "epics/ca_service.hpp"

#include <vector>

#include <boost/asio/post.hpp>

#include "core/log.hpp"
#include "core/permissions.hpp"
#include "core/write_path.hpp"
#include "epics/ca_message.hpp"
#include "epics/virtual_circuit.hpp"

uint32_t CaService::rights(const PvDirectory::Entry& entry, std::optional<Role> role) const {
  if (!role) return 0;
  uint32_t bits = ca::kReadAccess;
  if (WritePath::writable(*entry.field, WriteSource::Epics) && Permissions::allows(*role, *entry.field))
    bits |= ca::kWriteAccess;
  return bits;
}

void CaService::reload_access() {
  if (!access_.reload()) return;
  std::vector<std::shared_ptr<VirtualCircuit>> circuits(circuits_.begin(), circuits_.end());
  for (auto& circuit : circuits) circuit->refresh_rights();
}

void CaService::drop_stalled() {
  std::vector<std::shared_ptr<VirtualCircuit>> stalled;
  for (auto& circuit : circuits_)
    if (circuit->stalled(limits_.send_timeout)) stalled.push_back(circuit);
  for (auto& circuit : stalled)
    circuit->close(fmt::format("the client read nothing for {} s", limits_.send_timeout.count()));
}

bool CaService::admit(const std::shared_ptr<VirtualCircuit>& circuit) {
  if (circuits_.size() >= limits_.circuits_max) return false;
  circuits_.insert(circuit);
  return true;
}

void CaService::forget(VirtualCircuit* circuit) {
  for (auto it = circuits_.begin(); it != circuits_.end(); ++it)
    if (it->get() == circuit) {
      circuits_.erase(it);
      return;
    }
}

void CaService::close_all() {
  std::vector<std::shared_ptr<VirtualCircuit>> circuits(circuits_.begin(), circuits_.end());
  for (auto& circuit : circuits) circuit->close("");
  circuits_.clear();
}

void CaService::hand_off(std::function<void()> put) { boost::asio::post(writers_, std::move(put)); }
