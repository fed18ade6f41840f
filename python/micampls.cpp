// _micampls: the store-reading half of the Python module, mpls-show's own
// commands with their JSON documents handed to Python instead of printed.
// The package (micampls/__init__.py) turns them into dicts and adds the
// live client.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "tools/mpls-show/Show.h"

namespace py = pybind11;

namespace {

// Raised as micampls.StoreError(code, message): the codes are mpls-show's
// exit codes (4: no store, instance or entity; 2: bad usage; 1: unreadable).
PyObject *gStoreError = nullptr;

// Runs one mpls-show command on a fresh inspector and returns its JSON text.
template <typename F>
std::string capture(const std::string &agent, F &&command) {
  MplsShow::Json doc;
  try {
    MplsShow::Show show(agent, true);
    show.captureIs(&doc);
    command(show);
  } catch (const MplsShow::ShowError &e) {
    PyErr_SetObject(gStoreError, py::make_tuple(e.code(), e.what()).ptr());
    throw py::error_already_set();
  }
  return doc.dump();
}

} // namespace

PYBIND11_MODULE(_micampls, m) {
  m.doc() = "Read-only access to an MPLS agent's store (see micampls).";
  gStoreError =
      PyErr_NewException("micampls.StoreError", PyExc_RuntimeError, nullptr);
  m.add_object("StoreError", py::handle(gStoreError));

  m.def("set_root", [](const std::string &root) {
    ::setenv("MICA_SHM_ROOT", root.c_str(), 1);
  });
  m.def("summary", [](const std::string &agent) {
    return capture(agent, [](MplsShow::Show &s) { s.summary(); });
  });
  m.def(
      "entries",
      [](const std::string &agent, const std::string &table, unsigned unit,
         std::optional<std::uint32_t> label) {
        return capture(agent, [&](MplsShow::Show &s) {
          s.entries(table, static_cast<Asic::UnitId>(unit), label);
        });
      },
      py::arg("agent"), py::arg("table"), py::arg("unit"),
      py::arg("label") = py::none());
  m.def("log", [](const std::string &agent, const std::string &table,
                  std::uint64_t from, std::uint64_t limit) {
    return capture(agent,
                   [&](MplsShow::Show &s) { s.log(table, from, limit); });
  });
  m.def("hw",
        [](const std::string &agent, const std::string &table, unsigned unit) {
          return capture(agent, [&](MplsShow::Show &s) {
            s.hw(table, static_cast<Asic::UnitId>(unit));
          });
        });
  m.def("stats", [](const std::string &agent) {
    return capture(agent, [](MplsShow::Show &s) { s.stats(false); });
  });
  m.def("why", [](const std::string &agent, const std::string &table,
                  unsigned unit, std::uint32_t label, unsigned qualifier) {
    return capture(agent, [&](MplsShow::Show &s) {
      s.why(table, static_cast<Asic::UnitId>(unit), label,
            static_cast<std::uint8_t>(qualifier), true);
    });
  });
}
