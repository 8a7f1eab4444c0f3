#include <gtest/gtest.h>

#include <string>

#include "Host/ThrowSite.h"

namespace Norvex {
namespace {

TEST(ThrowSiteTest, ShortensTheSignaturesOfEveryCompiler) {
    const struct {
        const char* signature;
        const char* expected;
    } cases[] = {
        // Plain, members, constructors and destructors.
        {"Open", "Open"},
        {"int main()", "main"},
        {"void Ns::File::Open(int) const", "Open"},
        {"Ns::File::File(const std::string&)", "File"},
        {"Ns::File::~File()", "~File"},
        {"Ns::Box<T>::~Box() [with T = std::vector<int>]", "~Box"},
        {"static constexpr bool Ns::File::IsOpen(int) noexcept", "IsOpen"},
        {"void Ns::File::Take() &&", "Take"},
        // Return types and parameters that hold names, templates and brackets.
        {"std::vector<std::pair<int, Ns::A> > Ns::List(std::function<void(int)>)", "List"},
        {"auto Ns::List(int) -> std::vector<Ns::A>", "List"},
        {"decltype (((a) + b)) Ns::Sum(T, U) [with T = int; U = long int]", "Sum"},
        {"void (* Ns::GetHandler(int))(char)", "GetHandler"},
        {"void Ns::Check(T) requires std::same_as<T, int> [with T = int]", "Check"},
        {"std::string Ns::Name[abi:cxx11](int)", "Name"},
        {"T Ns::Get<T>(std::size_t) [T = std::map<int, Ns::A>]", "Get"},
        // Namespaces without a name, in the three spellings.
        {"void {anonymous}::Run()", "Run"},
        {"void Ns::(anonymous namespace)::Run(int)", "Run"},
        {"void __cdecl Ns::`anonymous-namespace'::Run(void)", "Run"},
        // Operators and conversions.
        {"bool Ns::A::operator==(const Ns::A&) const", "operator=="},
        {"std::ostream& Ns::operator<<(std::ostream&, const A&)", "operator<<"},
        {"T* Ns::P<T>::operator->() const [with T = int]", "operator->"},
        {"int Ns::A::operator()(int) const", "operator()"},
        {"int& Ns::A::operator[](int)", "operator[]"},
        {"static void* Ns::A::operator new [](std::size_t)", "operator new []"},
        {"Ns::A::operator std::function<void(int)>() const", "operator std::function<void(int)>"},
        {"__cdecl Ns::A::operator bool(void) const", "operator bool"},
        // Lambdas go by the function around them, however deep.
        {"Ns::File::Open(int)::<lambda(char)>", "Open"},
        {"Ns::Run(T)::<lambda(auto:1)>::<lambda()> [with auto:1 = int; T = char]", "Run"},
        {"auto Ns::File::Open(int)::(anonymous class)::operator()(char) const", "Open"},
        {"auto Ns::Run()::(lambda at a.cpp:3:5)::operator()() const", "Run"},
        {"auto __cdecl Ns::File::Open::<lambda_1>::operator ()(char) const", "Open"},
        {"void __cdecl Ns::Run::<lambda_1>::operator ()::<lambda_2>::operator ()(void) const",
         "Run"},
        {"auto __cdecl Ns::Run::<lambda_1>::operator ()<int>(int) const", "Run"},
        {"__cdecl Ns::File::File::<lambda_1>::operator ()(void) const noexcept", "File"},
        {"Ns::File::Open::<lambda_1>::operator ()", "Open"},
        {"auto Ns::Run(F) [F = (lambda at a.cpp:3:5)]", "Run"},
        {"void Ns::Apply(F) [with F = Ns::Run()::<lambda()>]", "Apply"},
        {"void __cdecl Ns::Box<class Ns::A,7>::Put<int>(const int &) const", "Put"},
        {"void __cdecl Ns::Apply<class Ns::Run::<lambda_1>>(class Ns::Run::<lambda_1>)", "Apply"},
        {"Ns::Run()::Local::Step()", "Step"},
        // Nothing to shorten.
        {"", ""},
        {"<lambda()>", "<lambda()>"},
        {"(((", "((("},
        {"void Ns::\u00d6ffnen(int)", "\u00d6ffnen"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(ShortFunctionName(item.signature), item.expected) << item.signature;
    }
}

TEST(ThrowSiteTest, MakesPathsRelativeToTheTree) {
    const struct {
        const char* path;
        const char* expected;
    } cases[] = {
        {"Host/Registry.cpp", "Host/Registry.cpp"},
        {"C:\\src\\Host\\Registry.cpp", "Host/Registry.cpp"},
        {"/home/Host/norvex/Proc/DirectX/Manager/API.cpp", "Proc/DirectX/Manager/API.cpp"},
        {"C:/a/Core/Threading/DispatchQueue.cpp", "Core/Threading/DispatchQueue.cpp"},
        {"/src/tests/Host/ThrowSiteTest.cpp", "tests/Host/ThrowSiteTest.cpp"},
        {"/src/MyHost/main.cpp", "/src/MyHost/main.cpp"},
        {"main.cpp", "main.cpp"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(RelativeSourcePath(item.path), item.expected);
    }
}

// Sites as this compiler gives them.
struct Probe {
    Probe() : site(MakeThrowSite(std::source_location::current())) {}
    explicit operator std::string() const {
        return MakeThrowSite(std::source_location::current()).function_name();
    }
    template <class T>
    static boost::source_location FromLambdas(const T& value) {
        const auto nested = [&] {
            return [&](auto) {
                static_cast<void>(value);
                return MakeThrowSite(std::source_location::current());
            };
        };
        return nested()(0);
    }
    boost::source_location site;
};

TEST(ThrowSiteTest, FindsItsOwnSites) {
    const Probe probe;
    EXPECT_STREQ(probe.site.function_name(), "Probe");
    EXPECT_STREQ(probe.site.file_name(), "tests/Host/ThrowSiteTest.cpp");
    EXPECT_EQ(std::string(probe).find("operator std::"), 0U);
    const auto nested = Probe::FromLambdas(probe);
    EXPECT_STREQ(nested.function_name(), "FromLambdas");
    EXPECT_GT(nested.line(), probe.site.line());
    EXPECT_EQ(nested.file_name(), probe.site.file_name()) << "equal texts are kept once";
}

} // namespace
} // namespace Norvex
