#pragma once

// The viewer's pictures in CPU memory: the selected one and its neighbours, decoded in the
// background, the selected one first; the others are forgotten. One thread, but for the function
// that it is given. The destructor waits for decoding to end. Throws nothing of its own: a picture
// that cannot be read has a failure instead of an image. A clip is kept open like a decoded
// picture, with its first frame read.

#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "apps/norvexdx/pictures/Image.h"
#include "apps/norvexdx/viewer/ClipPlayer.h"
#include "apps/norvexdx/viewer/ViewOptions.h"

namespace Norvex::App {

struct DecodedPicture {
    Image image;                           // of no size after a failure
    std::string failure;                   // one line; empty after success
    std::shared_ptr<ClipPlayer> clip = {}; // in place of the image

    DX::Size2DT<long> GetSize() const {
        return clip != nullptr ? clip->GetFrame().GetSize() : image.GetSize();
    }
};

class Album {
public:
    // onDecoded is called on another thread whenever a picture is there, or a frame of a clip
    // (ClipPlayer). from: as ReadImage's.
    Album(std::vector<std::string> files, std::function<void()> onDecoded,
          const std::optional<Conf::RGBColorSpace>& from = {}, const ClipOptions& clips = {});

    std::size_t GetCount() const { return m_files.size(); }
    const std::string& GetName(std::size_t index) const { return m_files[index]; }

    // Also to be called when a picture is there: begins what is next to be decoded.
    void Select(std::size_t index);
    // Null while it is being decoded, and when it is neither selected nor a neighbour. Valid until
    // the next Select.
    const DecodedPicture* Find(std::size_t index);
    // Selects it and waits.
    const DecodedPicture& Get(std::size_t index);

private:
    struct Entry {
        std::future<DecodedPicture> future; // invalid once the picture is there
        DecodedPicture picture;
        std::jthread thread; // last: it ends before the others go
    };

    void Forget(std::size_t selected);
    DecodedPicture Decode(const std::string& file) const;
    void Begin(std::size_t index);
    void WaitFor(std::size_t index);

    std::vector<std::string> m_files;
    std::function<void()> m_onDecoded;
    std::optional<Conf::RGBColorSpace> m_from;
    ClipOptions m_clips;
    std::map<std::size_t, Entry> m_entries;
};

} // namespace Norvex::App
