// A square that moves, as a video: draws each frame, converts it to NV12, and writes both planes to
// the standard input of an encoder, whose command line is this program's arguments:
//   video ffmpeg -f rawvideo -pix_fmt nv12 -s 640x360 -r 25 -i - out.mp4

#include <cstdio>
#include <string>
#include <vector>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/Exceptions.h"

using namespace Norvex;
namespace {
constexpr UINT kWidth = 640, kHeight = 360; // pixels, even
constexpr auto kDrawn = D3D12_RESOURCE_STATE_RENDER_TARGET;

CComPtr<ID3D12Resource> Make(DX::D12Device& device, UINT width, UINT height, DXGI_FORMAT format) {
    DX::D12Texture2DDesc desc;
    desc.width = width;
    desc.height = height;
    desc.format = format;
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    desc.initialState = kDrawn;
    return device.CreateTexture2D(desc);
}
// The rows of both planes have as many bytes as the picture has pixels in a row.
bool Write(DX::D12CommandQueue& queue, const CComPtr<ID3D12Resource>& plane, UINT rows, HANDLE to) {
    std::vector<std::uint8_t> bytes(std::size_t{kWidth} * rows);
    DX::D12DownloadResourceParams download;
    download.source = plane;
    download.stateBefore = download.stateAfter = kDrawn;
    download.subresources = {{bytes.data(), kWidth, bytes.size()}};
    queue.DownloadResource(download);
    DWORD written = 0;
    return WriteFile(to, bytes.data(), kWidth * rows, &written, nullptr) != FALSE;
}

bool WriteFrames(HANDLE pipe) {
    const auto device = DX::D12Device::CreatePrimary();
    const boost::intrusive_ptr queue(new DX::D12CommandQueue(device, {}));
    // [the conversion]
    const boost::intrusive_ptr converter(new DX::D12FrameConverter(device));
    DX::D12Frame picture; // sRGB, opaque
    picture.desc = DX::D3FrameDesc::MakeRGB({kWidth, kHeight});
    picture.textures[0] = Make(*device, kWidth, kHeight, DXGI_FORMAT_R8G8B8A8_UNORM);
    DX::D12Frame frame; // NV12, the matrix of BT.709, narrow range, chroma on the left
    frame.desc.size = picture.desc.size;
    frame.desc.colorSpace = picture.desc.colorSpace; // R'G'B' as it is encoded
    frame.textures[0] = Make(*device, kWidth, kHeight, DXGI_FORMAT_R8_UNORM);
    frame.textures[1] = Make(*device, kWidth / 2, kHeight / 2, DXGI_FORMAT_R8G8_UNORM);
    const auto target = device->CreateRenderTargetView(picture.textures[0]);
    bool isRead = true;
    for (long i = 0; i < 50 && isRead; ++i) {
        const auto work = queue->CreateCommandAllocator();
        work->RecordList(nullptr, [&](const auto& list) {
            list->ClearRenderTargetView(target, {0, 0, 0, 1}, {});
            list->ClearRenderTargetView(target, {1, 0.4F, 0, 1}, {{8 * i, 120, 8 * i + 120, 240}});
            converter->Encode(list, picture, frame, {{{kDrawn, kDrawn}, {kDrawn, kDrawn}}});
        });
        work->Execute();
        isRead = Write(*queue, frame.textures[0], kHeight, pipe) &&
                 Write(*queue, frame.textures[1], kHeight / 2, pipe);
    }
    // [the conversion]
    return isRead;
}

} // namespace
int main(int argc, char** argv) {
    std::string commandLine;
    for (int i = 1; i < argc; ++i) {
        commandLine += std::string("\"") + argv[i] + "\" ";
    }
    HANDLE frames = nullptr;
    STARTUPINFOA startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    CreatePipe(&startup.hStdInput, &frames, nullptr, 0);
    SetHandleInformation(startup.hStdInput, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    PROCESS_INFORMATION encoder = {};
    DWORD exitCode = 1;
    CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                   &startup, &encoder);
    CloseHandle(startup.hStdInput); // writing fails from now on when the encoder is gone
    try {
        if (!WriteFrames(frames)) {
            std::fprintf(stderr, "No encoder reads the frames: video ENCODER ARGUMENTS...\n");
        }
    } catch (const DX::DirectXException& e) {
        std::fprintf(stderr, "%s\n", e.GetErrorDescription().c_str());
    }
    CloseHandle(frames); // there are no more
    WaitForSingleObject(encoder.hProcess, INFINITE);
    GetExitCodeProcess(encoder.hProcess, &exitCode);
    return static_cast<int>(exitCode);
}
