#include "vorn/core/library.h"

#include <tbb/global_control.h>
#include <boost/archive/archive_exception.hpp>
#include <boost/archive/text_iarchive.hpp>
#include <boost/archive/text_oarchive.hpp>
#include <boost/serialization/string.hpp>

#include <istream>
#include <mutex>
#include <sstream>

#include "core/log_failure.h"
#include "core/log_internal.h"
#include "vorn/core/data_store.h"
#include "vorn/core/log.h"
#include "vorn/effects/effect_factory.h"

namespace vorn::detail {

/// A text input archive whose strings cannot claim more bytes than the text holds; the stock
/// one allocates whatever length the text announces before reading it.
class BoundedTextIArchive : public boost::archive::text_iarchive_impl<BoundedTextIArchive> {
 public:
  BoundedTextIArchive(std::istream& input, std::size_t maxStringBytes)
      : boost::archive::text_iarchive_impl<BoundedTextIArchive>(input, 0),
        maxStringBytes_(maxStringBytes) {
    init();
  }
  ~BoundedTextIArchive() override {}

 protected:
  friend class boost::archive::detail::interface_iarchive<BoundedTextIArchive>;
  friend class boost::archive::basic_text_iarchive<BoundedTextIArchive>;
  friend class boost::archive::load_access;

  using boost::archive::text_iarchive_impl<BoundedTextIArchive>::load;

  void load(std::string& text) {
    std::size_t size = 0;
    *this->This() >> size;
    if (size > maxStringBytes_) {
      throw boost::archive::archive_exception(
          boost::archive::archive_exception::input_stream_error);
    }
    is.get();  // the blank between length and characters
    text.resize(size);
    if (size == 0) return;
    is.read(text.data(), static_cast<std::streamsize>(size));
    if (static_cast<std::size_t>(is.gcount()) != size) {
      throw boost::archive::archive_exception(
          boost::archive::archive_exception::input_stream_error);
    }
  }

 private:
  std::size_t maxStringBytes_;
};

}  // namespace vorn::detail

#include <boost/archive/impl/archive_serializer_map.ipp>
#include <boost/archive/impl/basic_text_iarchive.ipp>
#include <boost/archive/impl/text_iarchive_impl.ipp>

template class boost::archive::basic_text_iarchive<vorn::detail::BoundedTextIArchive>;
template class boost::archive::text_iarchive_impl<vorn::detail::BoundedTextIArchive>;
template class boost::archive::detail::archive_serializer_map<vorn::detail::BoundedTextIArchive>;

namespace boost::serialization {

template <class Archive>
void serialize(Archive& archive, vorn::CameraProfilePaths& paths, const unsigned /*version*/) {
  archive& paths.dcpFolder;
  archive& paths.lensProfileFolder;
}

// Bool and enum go through int: the stock bool loader asserts on anything but 0 and 1, and an
// unknown application value must be refused rather than cast.
template <class Archive>
void serialize(Archive& archive, vorn::SVornContext& context, const unsigned /*version*/) {
  int forbid = context.forbidOutOfProcessLoader ? 1 : 0;
  int application = static_cast<int>(context.application);
  archive& context.dataFolder;
  archive& context.resourceFolder;
  archive& context.logFlags;
  archive& context.mode;
  archive& forbid;
  archive& context.cameraProfiles;
  archive& application;
  if constexpr (Archive::is_loading::value) {
    if ((forbid != 0 && forbid != 1) ||
        application < static_cast<int>(vorn::VornApplication::Editor) ||
        application > static_cast<int>(vorn::VornApplication::Tests)) {
      throw archive::archive_exception(archive::archive_exception::input_stream_error);
    }
    context.forbidOutOfProcessLoader = forbid != 0;
    context.application = static_cast<vorn::VornApplication>(application);
  }
}

}  // namespace boost::serialization

namespace vorn {

namespace {

constexpr double kVersionNumber = 0.37;
// The version text is the bare number, so hosts can print or compare it without parsing.
constexpr const char* kVersionString = "0.37";

std::mutex gStateMutex;
std::shared_ptr<SVornContext> gContext;
std::unique_ptr<tbb::global_control> gParallelismLimit;

void announce(const char* step) {
  Logger::LogInstance().LogAlways(ModuleName::Global, "%s", step);
}

void initDataStore(const SVornContext* context) {
  announce("datastore init");
  DataStore& store = DataStore::instance();
  if (context && !context->dataFolder.empty()) {
    store.loadFromFolder(context->dataFolder);
    detail::reportSettingsLoadError();
  }
  announce("datastore init: OK");
}

void initParallelLayer() {
  announce("hcim init");
  const int maxThreads = DataStore::instance().getInt("Threads.max", 0);
  {
    std::lock_guard lock(gStateMutex);
    gParallelismLimit.reset();
    if (maxThreads > 0) {
      gParallelismLimit = std::make_unique<tbb::global_control>(
          tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(maxThreads));
    }
  }
  announce("hcim init: OK");
}

}  // namespace

std::string saveContextToText(const SVornContext& context) {
  std::ostringstream output;
  {
    boost::archive::text_oarchive archive(output);
    archive << context;
  }
  return output.str();
}

bool loadContextFromText(const std::string& text, SVornContext& context) {
  try {
    std::istringstream input(text);
    SVornContext loaded;
    {
      detail::BoundedTextIArchive archive(input, text.size());
      archive >> loaded;
    }
    context = std::move(loaded);
    return true;
  } catch (const std::exception&) {
    VORN_LOG_FAILURE("Context text is malformed");
    return false;
  }
}

InitErrorCode vornInit() {
  initDataStore(nullptr);
  initParallelLayer();
  EffectFactory::initializeEffects();
  announce("vorn initialized");
  return kInitOk;
}

// The context is kept whatever its folders hold: without a data folder the settings keep
// their defaults and InitLog writes no log file.
InitErrorCode vornInit(const SVornContext& context) {
  {
    std::lock_guard lock(gStateMutex);
    gContext = std::make_shared<SVornContext>(context);
  }
  initDataStore(&context);
  initParallelLayer();
  EffectFactory::initializeEffects();
  announce("vorn initialized");
  return kInitOk;
}

std::shared_ptr<SVornContext> getVornContext() {
  std::lock_guard lock(gStateMutex);
  return gContext;
}

// The parallel limit goes first, then the context; the settings store keeps its values because
// a log that outlives tear-down still reads its verbosity there.
void vornTearDown() {
  std::lock_guard lock(gStateMutex);
  gParallelismLimit.reset();
  gContext.reset();
}

double vornVersionNumber() {
  return kVersionNumber;
}

std::string vornVersionString() {
  return kVersionString;
}

}  // namespace vorn
