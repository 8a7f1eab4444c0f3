#include "apps/norvexdx/viewer/Album.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "apps/norvexdx/clips/FrameSource.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"

namespace Norvex::App {

namespace {

constexpr std::ptrdiff_t kMaxDecoding = 2; // at the same time

bool IsDecoding(const std::future<DecodedPicture>& future) {
    return future.valid() && future.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

} // namespace

Album::Album(std::vector<std::string> files, std::function<void()> onDecoded,
             const std::optional<Conf::RGBColorSpace>& from, const ClipOptions& clips)
    : m_files(std::move(files)),
      m_onDecoded(std::move(onDecoded)),
      m_from(from),
      m_clips(clips) {}

void Album::Select(std::size_t index) {
    Forget(index);
    Begin(index);
    if (index + 1 < m_files.size()) {
        Begin(index + 1);
    }
    if (index > 0) {
        Begin(index - 1);
    }
}

const DecodedPicture* Album::Find(std::size_t index) {
    const auto found = m_entries.find(index);
    if (found == m_entries.end()) {
        return nullptr;
    }
    Entry& entry = found->second;
    if (IsDecoding(entry.future)) {
        return nullptr;
    }
    if (entry.future.valid()) {
        entry.picture = entry.future.get();
    }
    return &entry.picture;
}

const DecodedPicture& Album::Get(std::size_t index) {
    for (;;) {
        Select(index);
        if (const DecodedPicture* picture = Find(index)) {
            return *picture;
        }
        WaitFor(index);
    }
}

// For this one, or for the room to begin it.
void Album::WaitFor(std::size_t index) {
    if (m_entries.contains(index)) {
        m_entries[index].future.wait();
        return;
    }
    for (const auto& [other, entry] : m_entries) {
        if (IsDecoding(entry.future)) {
            entry.future.wait();
            return;
        }
    }
}

// What is being decoded cannot be stopped, and is kept until it is there.
void Album::Forget(std::size_t selected) {
    std::erase_if(m_entries, [&](auto& item) {
        const auto& [index, entry] = item;
        const bool isNear = index + 1 >= selected && index <= selected + 1;
        return !isNear && !IsDecoding(entry.future);
    });
}

DecodedPicture Album::Decode(const std::string& file) const {
    try {
        if (!IsClip(file, m_clips.input)) {
            return {ReadImage(PathFromUtf8(file), m_from), {}};
        }
        auto source = OpenClip(file, m_clips.input, m_from);
        const auto rate = m_clips.rate ? m_clips.rate : source->GetRate();
        const ClipSetting setting = {rate.value_or(FrameRate()), m_clips.isLoop,
                                     m_clips.first.value_or(1) - 1};
        return {
            {}, {}, std::make_shared<ClipPlayer>(std::move(source), file, setting, m_onDecoded)};
    } catch (...) {
        return {{}, DescribeFailureOf(file, std::current_exception())};
    }
}

void Album::Begin(std::size_t index) {
    const auto decoding = std::count_if(m_entries.begin(), m_entries.end(), [](const auto& item) {
        return IsDecoding(item.second.future);
    });
    if (decoding >= kMaxDecoding || m_entries.contains(index)) {
        return;
    }
    Entry& entry = m_entries[index];
    std::promise<DecodedPicture> decoded;
    entry.future = decoded.get_future();
    // Not std::async: the picture is there before it is told.
    entry.thread = std::jthread([this, index, promise = std::move(decoded)]() mutable {
        promise.set_value(Decode(m_files[index]));
        m_onDecoded();
    });
}

} // namespace Norvex::App
