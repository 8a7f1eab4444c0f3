#include "Host/ThrowSite.h"

#include <regex>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace Norvex {
namespace {

// A name, and signatures of every compiler that are shortened to it. Lambdas go by the function
// around them, however deep.
constexpr auto kSignatures = R"(
main | int main()
Open | Open | void Ns::File::Open(int) const | static constexpr bool Ns::File::Open(int) noexcept
Open | Ns::File::Open(int)::<lambda(char)> | Ns::File::Open::<lambda_1>::operator ()
Open | auto Ns::File::Open(int)::(anonymous class)::operator()(char) const
File | __cdecl Ns::File::File::<lambda_1>::operator ()(void) const noexcept
~Box | Ns::Box<T>::~Box() [with T = std::vector<int>]
Get | void Ns::File::Get() && | std::string Ns::Get[abi:cxx11](int) | void (* Ns::Get(int))(char)
Get | std::vector<std::pair<int, Ns::A> > Ns::Get(std::function<void(int)>)
Get | auto Ns::Get(int) -> std::vector<Ns::A> | T Ns::Get<T>(std::size_t) [T = std::map<int, Ns::A>]
Get | void Ns::Get(T) requires std::same_as<T, int> [with T = int]
Get | void __cdecl Ns::Box<class Ns::A,7>::Get<int>(const int &) const
Run | void {anonymous}::Run() | void Ns::(anonymous namespace)::Run(int)
Run | void __cdecl Ns::`anonymous-namespace'::Run(void)
Run | Ns::Run(T)::<lambda(auto:1)>::<lambda()> [with auto:1 = int; T = char]
Run | auto Ns::Run()::(lambda at a.cpp:3:5)::operator()() const
Run | void __cdecl Ns::Run::<lambda_1>::operator ()::<lambda_2>::operator ()(void) const
Apply | void Ns::Apply(F) [with F = Ns::Run()::<lambda()>]
Apply | void __cdecl Ns::Apply<class Ns::Run::<lambda_1>>(class Ns::Run::<lambda_1>)
operator-> | T* Ns::P<T>::operator->() const [with T = int]
operator() | int Ns::A::operator()(int) const
operator std::function<void(int)> | Ns::A::operator std::function<void(int)>() const
((( | (((
)";

TEST(ThrowSiteTest, ShortensTheSignaturesOfEveryCompiler) {
    const std::regex separator(" \\| ");
    std::istringstream table(kSignatures);
    for (std::string line; std::getline(table, line);) {
        std::sregex_token_iterator at(line.begin(), line.end(), separator, -1);
        for (const std::string name = *at; ++at != std::sregex_token_iterator();) {
            EXPECT_EQ(ShortFunctionName(at->str()), name) << at->str();
        }
    }
    EXPECT_EQ(ShortFunctionName(""), "");
}

TEST(ThrowSiteTest, MakesPathsRelativeToTheTree) {
    EXPECT_EQ(RelativeSourcePath("Host/Registry.cpp"), "Host/Registry.cpp");
    EXPECT_EQ(RelativeSourcePath("C:\\src\\Host\\Registry.cpp"), "Host/Registry.cpp");
    EXPECT_EQ(RelativeSourcePath("/home/Host/norvex/Proc/DirectX/A.cpp"), "Proc/DirectX/A.cpp");
    EXPECT_EQ(RelativeSourcePath("/src/MyHost/main.cpp"), "/src/MyHost/main.cpp");
}

} // namespace
} // namespace Norvex
