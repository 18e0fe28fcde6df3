// A Qt 5 window.
#include <QApplication>
#include <QTextEdit>

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QTextEdit window;
  window.setWindowTitle("Qt 5 window");
  window.resize(500, 300);
  window.show();
  return application.exec();
}
