// Networks of the tests: name spaces that are joined pairwise, each by a line of its own with
// addresses of both families. They go with the object, also when a test fails.
#pragma once

#include <string>
#include <vector>

class Networks {
 public:
    explicit Networks(int count);
    ~Networks();
    Networks(const Networks&) = delete;
    Networks& operator=(const Networks&) = delete;
    // Why they could not be made; empty when they are there.
    const std::string& Problem() const { return m_problem; }
    const std::string& Name(int of) const { return m_names.at(static_cast<std::size_t>(of)); }
    // Of one, as it is reached by the other.
    std::string Inet(int of, int from) const;
    std::string Inet6(int of, int from) const;
    // Beside it on the same line, an address at which nobody ever answers. The name service of the
    // other puts such addresses before the real one.
    std::string Silent(int of, int from, int which);
    // Takes one end of the line down, and up again.
    bool Cut(int of, int from);
    bool Mend(int of, int from);

 private:
    bool Carries(int of, int from);
    bool Ip(const std::string& arguments);
    bool Join(int a, int b);

    std::vector<std::string> m_names;
    std::string m_problem;
};
