// A Qt 5 window with a plain text editor.
#include <QApplication>
#include <QEvent>
#include <QPlainTextEdit>

#include "report.h"

namespace {

class Editor : public QPlainTextEdit {
 protected:
  void focusInEvent(QFocusEvent* event) override {
    QPlainTextEdit::focusInEvent(event);
    report("ready");
  }
};

}  // namespace

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  Editor editor;
  editor.resize(600, 400);
  QObject::connect(&editor, &QPlainTextEdit::textChanged,
                   [&] { report("text " + editor.toPlainText().toStdString()); });
  editor.show();
  return QApplication::exec();
}
