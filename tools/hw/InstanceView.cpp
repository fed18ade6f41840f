#include "tools/hw/InstanceView.h"

#include <sys/stat.h>

#include <utility>

namespace MicaMplsHw {

InstanceView::InstanceView(std::string name, std::uint32_t instanceId)
    : name_(std::move(name)), instanceId_(instanceId) {}

InstanceView::~InstanceView() {
  reset();
}

std::string InstanceView::directory() const {
  return Shm::rootDirectory() + "/" + name_ + "." + std::to_string(instanceId_);
}

bool InstanceView::sameDirectory() const {
  struct stat st {};
  return ::stat(directory().c_str(), &st) == 0 && st.st_dev == dev_ &&
         st.st_ino == ino_;
}

Fwk::Ptr<Shm::EntityManager> InstanceView::instance() {
  if (em_) {
    return em_;
  }
  // The identity of the directory is taken before the handle opens it: if
  // the directory is replaced in between, the next check sees a difference
  // and opens it again, which errs on the safe side.
  struct stat st {};
  if (::stat(directory().c_str(), &st) != 0) {
    return nullptr;
  }
  try {
    em_ = Shm::entityManager(name_, instanceId_, Shm::Access::read);
  } catch (const Shm::NotFoundError &) {
    return nullptr;
  }
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  return em_;
}

Fwk::Ptr<Shm::Entity> InstanceView::mount(const std::string &path,
                                          const std::string &typeName) {
  auto em = instance();
  if (!em) {
    return nullptr;
  }
  if (auto e = em->entity(path)) {
    return e;
  }
  auto group = em->mountGroup();
  try {
    group->doMount(path, typeName,
                   Shm::MountInfo(Shm::MountInfo::kReaderMount));
  } catch (const Shm::NotFoundError &) {
    // The file is not there, or the handle's directory was removed (and
    // perhaps created again): only the second needs a new handle.
    if (!sameDirectory()) {
      reset();
    }
    return nullptr;
  }
  group->doClose();
  mounts_[path] = group;
  return em->entity(path);
}

std::vector<Asic::UnitId> InstanceView::units(const std::string &base) {
  auto em = instance();
  return em ? unitsIn(*em, base) : std::vector<Asic::UnitId>{};
}

void InstanceView::forget(const std::string &path) {
  const auto it = mounts_.find(path);
  if (it != mounts_.end()) {
    it->second->doUnmount();
    mounts_.erase(it);
  }
  if (em_ && !sameDirectory()) {
    reset();
  }
}

void InstanceView::reset() {
  for (auto &[path, group] : mounts_) {
    group->doUnmount();
  }
  mounts_.clear();
  if (em_) {
    em_->close();
    em_ = nullptr;
  }
}

std::map<std::tuple<std::uint32_t, Asic::UnitId, std::uint64_t>,
         Asic::HwRefusalRecord>
hwRefusals(InstanceView &hw) {
  std::map<std::tuple<std::uint32_t, Asic::UnitId, std::uint64_t>,
           Asic::HwRefusalRecord>
      out;
  auto slate =
      hw.entity<Asic::HwRefusalSlate>(Asic::HwRefusalSlate::path(kGroup));
  if (slate) {
    readRecords(
        slate->hwRefused(), false, [&] { out.clear(); },
        [&](const Asic::HwRefusalRecord &r) {
          out[{r.at.tableId, r.at.unit, r.at.key}] = r;
        });
  }
  return out;
}

} // namespace MicaMplsHw
