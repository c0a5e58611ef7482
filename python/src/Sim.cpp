// tqble._core.sim: the simulated radio, its posts and their faults, for testing Python code
// without a post. Everything here runs on the caller's thread, which drives the main queue.
#include <pybind11/chrono.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "tqble/sim/SimRadio.h"

namespace tqble::python {

namespace py = pybind11;
using namespace pybind11::literals;
using sim::VirtualPost;

namespace {

std::optional<TQError> stackError(const std::optional<std::string>& message) {
  if (!message) return std::nullopt;
  return TQError{*message, sim::kConnectionTimeoutCode, {}};
}

std::optional<std::string> errorText(const std::optional<TQError>& error) {
  if (!error) return std::nullopt;
  return error->domain;
}

}  // namespace

void bindSim(py::module_& parent) {
  auto m = parent.def_submodule("sim", "The simulated radio and its posts.");

  py::enum_<sim::GunState>(m, "GunState", "A simulated post's gun state.")
      .value("IDLE", sim::GunState::Idle)
      .value("PLUGGED_IN", sim::GunState::PluggedIn)
      .value("CHARGING", sim::GunState::Charging)
      .value("FINISHED", sim::GunState::Finished)
      .value("FAULT", sim::GunState::Fault);
  py::enum_<sim::FaultCode>(m, "FaultCode", "Fault codes a simulated post can raise.")
      .value("OVER_CURRENT", sim::FaultOverCurrent)
      .value("OVER_VOLTAGE", sim::FaultOverVoltage)
      .value("UNDER_VOLTAGE", sim::FaultUnderVoltage)
      .value("EMERGENCY_STOP", sim::FaultEmergencyStop);

  py::class_<sim::Faults>(m, "Faults", "Misbehaviour switched on for one simulated post.")
      .def_readwrite("mute", &sim::Faults::mute, "The post reads requests but answers none.")
      .def_readwrite("fault_answer", &sim::Faults::faultAnswer,
                     "A fault code the state query answers with, or None.")
      .def_readwrite("chunk_sizes", &sim::Faults::chunkSizes,
                     "Sizes of the notifications an answer is cut into (empty: 20 bytes).")
      .def_readwrite("lost_notifications", &sim::Faults::lostNotifications,
                     "Indices of an answer's notifications that never arrive.")
      .def_readwrite("drop_link_after", &sim::Faults::dropLinkAfterNotifications,
                     "The link drops after this many notifications of the next answer.")
      .def_property(
          "connection_error", [](const sim::Faults& f) { return errorText(f.connectionError); },
          [](sim::Faults& f, std::optional<std::string> message) {
            f.connectionError = stackError(message);
          },
          "Connection attempts fail with this message, or None.");

  py::class_<sim::Timing>(m, "Timing", "Latencies of the simulated radio.")
      .def_readwrite("connect", &sim::Timing::connect)
      .def_readwrite("discovery", &sim::Timing::discovery)
      .def_readwrite("read", &sim::Timing::read)
      .def_readwrite("answer", &sim::Timing::answer, "From a write to its first notification.")
      .def_readwrite("notification_gap", &sim::Timing::notificationGap)
      .def_readwrite("write_confirmation", &sim::Timing::writeConfirmation)
      .def_readwrite("first_advertisement", &sim::Timing::firstAdvertisement);

  py::class_<VirtualPost, std::shared_ptr<VirtualPost>>(m, "Post", "A simulated charging post.")
      .def_property_readonly("name", &VirtualPost::name)
      .def_property_readonly("identifier", &VirtualPost::identifier)
      .def_property("rssi", &VirtualPost::rssi, &VirtualPost::setRssi)
      .def_property("advertising", &VirtualPost::advertising, &VirtualPost::setAdvertising)
      .def_property_readonly("connected", &VirtualPost::connected)
      .def_property_readonly("faults", py::overload_cast<>(&VirtualPost::faults),
                             py::return_value_policy::reference_internal)
      .def_property_readonly("gun_state", [](const VirtualPost& p) { return p.model().gunState(); })
      .def("drop_link", &VirtualPost::dropLink, "Loses the link, as if out of range.")
      .def("plug_in", [](VirtualPost& p) { p.model().plugIn(); }, "A car is plugged in.")
      .def("unplug", [](VirtualPost& p) { p.model().unplug(); }, "The car is unplugged.")
      .def(
          "raise_fault", [](VirtualPost& p, sim::FaultCode code) { p.model().raiseFault(code); },
          "code"_a, "Puts the post in fault, ending a running session.")
      .def("clear_fault", [](VirtualPost& p) { p.model().clearFault(); }, "Back to idle.")
      .def_property_readonly("received_writes", &VirtualPost::receivedWrites,
                             "Every write the post received, as bytes.");

  m.def(
      "add_post",
      [](const std::string& name, const std::string& identifier, std::int64_t rssi) {
        sim::PostSetup setup;
        setup.name = name;
        setup.identifier = identifier;
        setup.rssi = rssi;
        return sim::SimRadio::shared().addPost(setup);
      },
      "name"_a = sim::PostSetup{}.name, "identifier"_a = sim::PostSetup{}.identifier,
      "rssi"_a = sim::PostSetup{}.rssi,
      "Puts a post in range; the first one added replaces the default post.");
  m.def(
      "remove_post", [](const std::shared_ptr<VirtualPost>& p) { sim::SimRadio::shared().removePost(p); },
      "post"_a, "Takes a post out of range, dropping its links.");
  m.def(
      "posts", [] { return sim::SimRadio::shared().posts(); }, "The posts in range.");
  m.def(
      "set_powered", [](bool on) { sim::SimRadio::shared().setPowered(on); }, "on"_a,
      "Switches the simulated adapter on or off (off drops every link).");
  m.def(
      "timing", [] { return &sim::SimRadio::shared().timing(); },
      py::return_value_policy::reference, "The radio's latencies, to change in place.");
}

}  // namespace tqble::python
