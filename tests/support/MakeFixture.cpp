// make_fixture NAME PATH: writes the catalogue fixture NAME to PATH, for
// checks outside the test programs (the install check, the README demo).
// make_fixture --list prints the names.

#include "support/MediaFixtures.h"

#include <QFile>

#include <cstdio>

using namespace molvane::test;

int main(int argc, char** argv)
{
    if (argc == 2 && QString::fromLocal8Bit(argv[1]) == QLatin1String("--list")) {
        for (FixtureId id : AllFixtures())
            std::printf("%s\n", qPrintable(FixtureName(id)));
        return 0;
    }
    if (argc != 3) {
        std::fputs("usage: make_fixture NAME PATH | --list\n", stderr);
        return 2;
    }
    const QString name = QString::fromLocal8Bit(argv[1]);
    const QString target = QString::fromLocal8Bit(argv[2]);
    for (FixtureId id : AllFixtures()) {
        if (FixtureName(id) != name)
            continue;
        const Fixture& fixture = GetFixture(id);
        QFile::remove(target);
        if (!QFile::copy(fixture.path, target)) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(target));
            return 1;
        }
        return 0;
    }
    std::fprintf(stderr, "no fixture named %s\n", qPrintable(name));
    return 2;
}
