// Runs a fuzz target over every file of the corpus folders given on the
// command line, plus every prefix of each file (parsers must survive
// truncated input), so the corpus is a regression test under any compiler.
#include <QCoreApplication>
#include <QDirIterator>
#include <QFile>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int files = 0;
    for (int i = 1; i < argc; ++i) {
        QDirIterator it(QString::fromLocal8Bit(argv[i]), QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            QFile f(it.next());
            if (!f.open(QIODevice::ReadOnly))
                continue;
            const QByteArray data = f.readAll();
            const int step = data.size() > 4096 ? data.size() / 512 : 1;
            for (int len = 0; len <= data.size(); len += step)
                LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.constData()),
                                       static_cast<size_t>(len));
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.constData()),
                                   static_cast<size_t>(data.size()));
            ++files;
        }
    }
    std::printf("replayed %d corpus files\n", files);
    return files > 0 ? 0 : 1;
}
